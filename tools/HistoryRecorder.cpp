#include "HistoryRecorder.h"

#include <poll.h>

#include <cstddef>
#include <exception>
#include <iostream>
#include <utility>

#include "HistoryStore.h"

namespace {

constexpr std::chrono::seconds kPeriod{60};
constexpr int kLookEvery = 1000;         // milliseconds
constexpr std::size_t kWaitingRuns = 8;  // while nothing can be written

}  // namespace

HistoryRecorder::HistoryRecorder(std::string path, Source newest)
    : path_(std::move(path)), newest_(std::move(newest)), thread_(&HistoryRecorder::Run, this) {}

HistoryRecorder::~HistoryRecorder() {
  ending_.Raise();
  thread_.join();
}

std::string HistoryRecorder::Trouble() const {
  const std::lock_guard lock(mutex_);
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
  const bool isOver =
      !waiting_.empty() && (newest == nullptr || newest->server.started != waiting_.back()->server.started);
  if (isOver && Trouble().empty()) Write();
  if (newest != nullptr) {
    if (!waiting_.empty() && newest->server.started == waiting_.back()->server.started) waiting_.pop_back();
    waiting_.push_back(newest);
    if (waiting_.size() > kWaitingRuns) waiting_.pop_front();
  }
  if (Clock::now() >= due_ && !waiting_.empty()) Write();
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
    store.Keep(*waiting_.front());
    waiting_.pop_front();
  }
}

void HistoryRecorder::Report(const std::string& trouble) {
  if (trouble == Trouble()) return;
  std::cerr << "ugs: "
            << (trouble.empty() ? "the history is written again" : trouble + "; tried again each minute")
            << std::endl;
  const std::lock_guard lock(mutex_);
  trouble_ = trouble;
}
