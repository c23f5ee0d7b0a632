#include "LogFile.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <ctime>
#include <utility>

namespace {
constexpr std::chrono::seconds kRetryPeriod(1);
}  // namespace

LogFile::LogFile(std::string path, std::size_t maxSize, std::size_t olderFiles, std::string pattern)
    : path_(std::move(path)), maxSize_(maxSize), olderFiles_(olderFiles), pattern_(std::move(pattern)) {
  const ugs::MutexLock lock(mutex_);
  Open();
}

void LogFile::log(const spdlog::details::log_msg& message) {
  const ugs::MutexLock lock(mutex_);
  const bool isOpen = UseFile([&]() UGS_REQUIRES(mutex_) {
    file_->log(message);
    written_ = std::chrono::system_clock::to_time_t(message.time);
  });
  if (!isOpen) NoteFailure();
}

void LogFile::flush() {
  const ugs::MutexLock lock(mutex_);
  if (file_ != nullptr && !IsStillAtPath()) file_.reset();
  UseFile([&]() UGS_REQUIRES(mutex_) { file_->flush(); });
}

// Opens the file first if the last use failed. Lines that come before the next try are dropped: waiting for a
// disk would hold up whoever logs.
template <typename Action>
bool LogFile::UseFile(Action action) {
  if (file_ == nullptr && Clock::now() < nextTry_) return false;
  try {
    if (file_ == nullptr) Open();
    action();
    return true;
  } catch (...) {
    NoteFailure();
    // The logger reports it; a sink that failed once may hold a null FILE and is not used again.
    file_.reset();
    nextTry_ = Clock::now() + kRetryPeriod;
    throw;
  }
}

void LogFile::NoteFailure() {
  ++failures_;
  failed_ = std::time(nullptr);
}

// Opening a FIFO without a reader would never end. Refused in the words of the library for any other file
// that it cannot write.
void RefuseFifo(const std::string& path) {
  struct stat status = {};
  if (stat(path.c_str(), &status) != 0 || !S_ISFIFO(status.st_mode)) return;
  spdlog::throw_spdlog_ex("Failed opening file " + path + " for writing", ENXIO);
}

// The handler runs at every rotation, too, so that the file noted is always the one that is written.
void LogFile::Open() {
  RefuseFifo(path_);
  spdlog::file_event_handlers handlers;
  handlers.after_open = [this](const spdlog::filename_t&, std::FILE* stream) UGS_REQUIRES(mutex_) {
    struct stat status = {};
    fstat(fileno(stream), &status);
    device_ = status.st_dev;
    inode_ = status.st_ino;
  };
  file_ =
      std::make_unique<spdlog::sinks::rotating_file_sink_st>(path_, maxSize_, olderFiles_, false, handlers);
  file_->set_pattern(pattern_);
}

bool LogFile::IsStillAtPath() const {
  struct stat status = {};
  return stat(path_.c_str(), &status) == 0 && status.st_dev == device_ && status.st_ino == inode_;
}
