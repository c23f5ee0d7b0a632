#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <string_view>

#include "Mutex.h"

// Standard output, which nobody need be reading. A console that takes nothing for 50 ms (a pager, a stuck log
// driver, a terminal whose network is down) holds nobody up again: lines are lost until it can take one, and
// are then counted on it.
//
// There is one standard output, so there is one Console. Thread-safe: one mutex, a leaf, held for as long as
// a line is waited for.
class Console {
 public:
  static Console& Instance();
  Console(const Console&) = delete;
  Console& operator=(const Console&) = delete;

  // Returns when the console has taken `text`, or will not. Errors (a closed pipe, a full disk) lose it.
  void Write(std::string_view text) UGS_EXCLUDES(mutex_);

 private:
  using TimePoint = std::chrono::steady_clock::time_point;

  Console() = default;
  ~Console();

  bool CatchUp() UGS_REQUIRES(mutex_);
  bool Put(std::string_view text, TimePoint deadline) UGS_REQUIRES(mutex_);
  long WriteSome(std::string_view text) UGS_REQUIRES(mutex_);
  long WriteToTerminal(std::string_view text) UGS_REQUIRES(mutex_);

  ugs::Mutex mutex_;
  std::string rest_ UGS_GUARDED_BY(mutex_);        // of a text that the console took in part
  std::uint64_t lost_ UGS_GUARDED_BY(mutex_) = 0;  // texts since the console last took one
  int terminal_ UGS_GUARDED_BY(mutex_) = -1;       // standard output opened anew, once it was a terminal
};
