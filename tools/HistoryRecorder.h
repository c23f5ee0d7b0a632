// Keeps the history while the page runs.
#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "Mutex.h"
#include "Status.h"
#include "Wakeup.h"

// Writes the newest snapshot into the file once a minute, the last one of each run of the server as soon as
// that is over, and the last one of all when it ends; with it the losses that it tells no more, because
// there were many since. Whatever is wrong with the file stops nobody: it is
// said once on standard error, and tried again.
class HistoryRecorder {
 public:
  // Called once a second, on a thread of its own; gives null while there is no server.
  using Source = std::function<std::shared_ptr<const StatusSnapshot>()>;

  HistoryRecorder(std::string path, Source newest);
  ~HistoryRecorder();
  HistoryRecorder(const HistoryRecorder&) = delete;
  HistoryRecorder& operator=(const HistoryRecorder&) = delete;

  // Why it cannot be written; empty if it can. Any thread.
  [[nodiscard]] std::string Trouble() const;

 private:
  using Clock = std::chrono::steady_clock;

  // What of a run of the server is not written yet.
  struct Waiting {
    std::shared_ptr<const StatusSnapshot> newest;
    std::vector<StatusLoss> gone;  // losses of earlier ones that the newest tells no more; the oldest first
  };

  void Run();
  void Look();
  void Remember(const std::shared_ptr<const StatusSnapshot>& newest);
  [[nodiscard]] bool IsOfNewestRun(const StatusSnapshot& snapshot) const;
  void Write();
  void WriteAll();
  void Report(const std::string& trouble);

  const std::string path_;
  const Source newest_;
  std::deque<Waiting> waiting_;  // by run
  Clock::time_point due_ = Clock::now();
  mutable ugs::Mutex mutex_;
  std::string trouble_ UGS_GUARDED_BY(mutex_);
  const ugs::Wakeup ending_;
  std::thread thread_;
};
