#pragma once

#include <spdlog/sinks/rotating_file_sink.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <string>

#include "Logging.h"
#include "Mutex.h"

// The rotating log file that survives what happens to its disk: spdlog's sink, opened anew after a failure.
//
// Left to itself, spdlog 1.10 keeps a null FILE once a rotation could not open the next file (no free
// descriptor, no directory), and writes to it. It also goes on writing to a file that was deleted or moved
// away under it. Here a sink that failed is dropped and made again, once a second at most since a failing
// open takes 50 ms, and every flush looks whether the file is still at its path. Lines that come in
// between are lost to the file; the failure itself is thrown to the logger, which reports it on standard
// error.
//
// Thread-safe: one mutex, a leaf.
class LogFile final : public spdlog::sinks::sink {
 public:
  // Opens the file for appending, and creates it and its directory if they are missing. Throws
  // spdlog::spdlog_ex.
  LogFile(std::string path, std::size_t maxSize, std::size_t olderFiles, std::string pattern);

  void log(const spdlog::details::log_msg& message) override;
  void flush() override;

  [[nodiscard]] LogState State() const { return {written_, failed_, failures_}; }

  // The pattern is the constructor's; these have no effect.
  void set_pattern(const std::string& /*pattern*/) override {}
  void set_formatter(std::unique_ptr<spdlog::formatter> /*formatter*/) override {}

 private:
  using Clock = std::chrono::steady_clock;

  void Open() UGS_REQUIRES(mutex_);
  // False if it is closed, and not to be opened yet.
  template <typename Action>
  bool UseFile(Action action) UGS_REQUIRES(mutex_);
  void NoteFailure();
  [[nodiscard]] bool IsStillAtPath() const UGS_REQUIRES(mutex_);

  const std::string path_;
  const std::size_t maxSize_;
  const std::size_t olderFiles_;
  const std::string pattern_;

  std::atomic<std::int64_t> written_ = 0;
  std::atomic<std::int64_t> failed_ = 0;
  std::atomic<std::uint64_t> failures_ = 0;

  ugs::Mutex mutex_;
  std::unique_ptr<spdlog::sinks::rotating_file_sink_st> file_ UGS_GUARDED_BY(mutex_);  // null after a failure
  Clock::time_point nextTry_ UGS_GUARDED_BY(mutex_);                                   // of opening it again
  // Of the open file.
  dev_t device_ UGS_GUARDED_BY(mutex_) = 0;
  ino_t inode_ UGS_GUARDED_BY(mutex_) = 0;
};
