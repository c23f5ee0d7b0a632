#include "HistoryRecorder.h"

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <exception>
#include <iostream>
#include <utility>

#include "HistoryStore.h"

namespace {

constexpr std::chrono::seconds kPeriod{60};
constexpr int kLookEvery = 1000;                // milliseconds
constexpr std::size_t kWaitingRuns = 8;         // while nothing can be written
constexpr std::size_t kWaitingLosses = 20'000;  // of a run

// Adds to `gone` those of `before` that `now` has no more. Both have the newest first and lose the oldest.
void AddGone(std::vector<StatusLoss>& gone, const std::vector<StatusLoss>& before,
             const std::vector<StatusLoss>& now) {
  const auto isOldest = [&](const StatusLoss& loss) {
    return !now.empty() && loss.lost == now.back().lost && loss.key == now.back().key;
  };
  const auto oldestKept = std::find_if(before.rbegin(), before.rend(), isOldest);
  gone.insert(gone.end(), before.rbegin(), oldestKept);
  if (gone.size() > kWaitingLosses) {
    gone.erase(gone.begin(), gone.end() - static_cast<std::ptrdiff_t>(kWaitingLosses));
  }
}

}  // namespace

HistoryRecorder::HistoryRecorder(std::string path, Source newest)
    : path_(std::move(path)), newest_(std::move(newest)), thread_(&HistoryRecorder::Run, this) {}

HistoryRecorder::~HistoryRecorder() {
  ending_.Raise();
  thread_.join();
}

std::string HistoryRecorder::Trouble() const {
  const ugs::MutexLock lock(mutex_);
  return trouble_;
}

void HistoryRecorder::Run() {
  Write();  // the file is there to be read from now on
  due_ = Clock::now();
  pollfd ending{ending_.Descriptor(), POLLIN, 0};
  while (poll(&ending, 1, kLookEvery) <= 0) Look();
  Look();
  Write();
}

void HistoryRecorder::Look() {
  const std::shared_ptr<const StatusSnapshot> newest = newest_();
  const bool isOver = !waiting_.empty() && (newest == nullptr || !IsOfNewestRun(*newest));
  if (isOver && Trouble().empty()) Write();
  if (newest != nullptr) Remember(newest);
  if (Clock::now() >= due_ && !waiting_.empty()) Write();
}

bool HistoryRecorder::IsOfNewestRun(const StatusSnapshot& snapshot) const {
  return !waiting_.empty() && snapshot.server.started == waiting_.back().newest->server.started;
}

void HistoryRecorder::Remember(const std::shared_ptr<const StatusSnapshot>& newest) {
  if (!IsOfNewestRun(*newest)) {
    waiting_.push_back({newest, {}});
    if (waiting_.size() > kWaitingRuns) waiting_.pop_front();
    return;
  }
  Waiting& run = waiting_.back();
  AddGone(run.gone, run.newest->losses, newest->losses);
  run.newest = newest;
}

void HistoryRecorder::Write() {
  due_ = Clock::now() + kPeriod;
  try {
    WriteAll();
    Report({});
  } catch (const std::exception& error) {
    Report(error.what());
  }
}

// The file is opened each time, so that one that was moved away does not go on being written unseen.
void HistoryRecorder::WriteAll() {
  HistoryStore store(path_);
  while (!waiting_.empty()) {
    store.Keep(*waiting_.front().newest, waiting_.front().gone);
    waiting_.pop_front();
  }
}

void HistoryRecorder::Report(const std::string& trouble) {
  if (trouble == Trouble()) return;
  pollfd complaints{STDERR_FILENO, POLLOUT, 0};
  if (poll(&complaints, 1, 0) == 1) {  // a terminal that is stopped would stop the history and the end
    std::cerr << "ugs: "
              << (trouble.empty() ? "the history is written again" : trouble + "; tried again each minute")
              << std::endl;
  }
  const ugs::MutexLock lock(mutex_);
  trouble_ = trouble;
}
