#include "Logging.h"

#include <spdlog/cfg/argv.h>
#include <spdlog/cfg/env.h>
#include <spdlog/sinks/base_sink.h>

#include <memory>
#include <mutex>

#include "Console.h"
#include "LogFile.h"
#include "LogTexts.h"
#include "Mutex.h"

namespace {

constexpr std::size_t kMaxFileSize = 10'485'760;  // 10 MiB

thread_local std::string lastError;

std::shared_ptr<LogFile> logFile;  // set before there are threads

// Codes come from this program's texts, so they are few.
class ErrorCounts {
 public:
  void Count(const std::string& code) {
    const ugs::MutexLock lock(mutex_);
    ++counts_[code];
  }
  [[nodiscard]] std::map<std::string, std::uint64_t> Get() const {
    const ugs::MutexLock lock(mutex_);
    return counts_;
  }

 private:
  mutable ugs::Mutex mutex_;  // a leaf
  std::map<std::string, std::uint64_t> counts_ UGS_GUARDED_BY(mutex_);
};

ErrorCounts errorCounts;  // not made at first use: a thread's, it would die before that thread's owner

class ConsoleSink final : public spdlog::sinks::base_sink<std::mutex> {
 private:
  void sink_it_(const spdlog::details::log_msg& message) override {
    spdlog::memory_buf_t line;
    formatter_->format(message, line);
    Console::Instance().Write({line.data(), line.size()});
  }
  void flush_() override {}  // nothing is ever held back
};

}  // namespace

void SetUpLogging(const std::string& name, int argc, char** argv, const std::string& directory) {
  auto console = std::make_shared<ConsoleSink>();
  console->set_level(spdlog::level::info);
  console->set_pattern("[%l] %v");

  const std::string path = directory + "/" + name + ".txt";
  logFile = std::make_shared<LogFile>(path, kMaxFileSize, ugs::kOlderLogFiles, "[%c][%L] %v");
  logFile->set_level(spdlog::level::info);

  auto logger = std::make_shared<spdlog::logger>(name, spdlog::sinks_init_list{console, logFile});
  logger->flush_on(spdlog::level::warn);

  // A second set-up in one process replaces the first; registering a taken name would throw.
  spdlog::drop(name);
  spdlog::register_logger(logger);
  spdlog::set_default_logger(logger);

  // The command line comes last, so it wins.
  spdlog::cfg::load_env_levels();
  spdlog::cfg::load_argv_levels(argc, argv);
}

LogState CurrentLogState() {
  return logFile != nullptr ? logFile->State() : LogState();
}

void PrintToConsole(const char* text) {
  lastError = text;
  Console::Instance().Write(text);
}

const std::string& LastError() {
  return lastError;
}

void ForgetLastError() {
  lastError.clear();
}

std::string ErrorCodeIn(std::string_view text) {
  const std::size_t begin = text.rfind("0x");
  if (begin == std::string_view::npos) return "none";
  return std::string(text.substr(begin, text.find_first_not_of("0123456789ABCDEFabcdef", begin + 2) - begin));
}

std::map<std::string, std::uint64_t> CurrentErrorCounts() {
  return errorCounts.Get();
}

void FunctionLog::NoteLastError(std::string text) {
  errorCounts.Count(ErrorCodeIn(text));
  lastError = std::move(text);
}
