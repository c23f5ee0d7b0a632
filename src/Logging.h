// The process logger: set-up, and the one way to write to it.
#pragma once

#include <spdlog/spdlog.h>

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>

// Makes the logger `name` the default one: a console sink "[%l] %v" on standard output and a file sink
// "[%c][%L] %v" on `directory`/`name`.txt, 10 MiB a file, five older files kept; warnings are flushed at
// once. Applies SPDLOG_LEVEL from the environment, then from the arguments. May be called again.
// Throws spdlog::spdlog_ex if the log file cannot be opened. Main thread only.
void SetUpLogging(const std::string& name, int argc, char** argv, const std::string& directory);

// How the log file fares.
struct LogState {
  // Times are seconds since 1970-01-01 UTC; 0 is never.
  std::int64_t written = 0;    // when a line was last written to it
  std::int64_t failed = 0;     // when that last failed
  std::uint64_t failures = 0;  // how often; a full disk takes the lines that were held back along
};
// Any thread, after SetUpLogging.
[[nodiscard]] LogState CurrentLogState();

// Writes `text` to standard output as it is: for the few messages that do not go to the log. Thread-safe.
void PrintToConsole(const char* text);

// What this thread has last told with FunctionLog::Error or PrintToConsole, whether or not the log's level
// let it through: of a request that was refused, the reason. Empty after ForgetLastError.
[[nodiscard]] const std::string& LastError();
void ForgetLastError();

// The last code in an error's text: "Error 0x00AE06: ..." gives "0x00AE06". "none" without one.
[[nodiscard]] std::string ErrorCodeIn(std::string_view text);

// How often FunctionLog::Error was called since the process began, by code. Any thread.
[[nodiscard]] std::map<std::string, std::uint64_t> CurrentErrorCounts();

// A log text with its arguments checked, and the place that logs it. The constructor runs at compile time
// only, so a text that came from a peer cannot become a format. It is implicit: callers write the bare text.
template <typename... Args>
struct FormatWithLocation {
  template <std::size_t N>
  consteval FormatWithLocation(const char (&literal)[N], const char* sourceFile = __builtin_FILE(),
                               int sourceLine = __builtin_LINE())
      : text(literal), file(sourceFile), line(sourceLine) {}

  fmt::format_string<Args...> text;
  const char* file;
  int line;
};

// Logs under one function's name, class included. A function that logs holds one of these, since neither
// `__func__` nor what clang 14 offers in its place carries the class. Immutable; as thread-safe as the
// default logger.
class FunctionLog {
 public:
  explicit constexpr FunctionLog(const char* qualifiedFunction) : function_(qualifiedFunction) {}

  // False if info lines go nowhere: work done only for them can be left out.
  [[nodiscard]] static bool ShowsInfo() {
    return spdlog::default_logger_raw()->should_log(spdlog::level::info);
  }

  template <typename... Args>
  void Info(FormatWithLocation<std::type_identity_t<Args>...> text, Args&&... args) const {
    Write(spdlog::level::info, text, std::forward<Args>(args)...);
  }
  template <typename... Args>
  void Warn(FormatWithLocation<std::type_identity_t<Args>...> text, Args&&... args) const {
    Write(spdlog::level::warn, text, std::forward<Args>(args)...);
  }
  template <typename... Args>
  void Error(FormatWithLocation<std::type_identity_t<Args>...> text, Args&&... args) const {
    NoteLastError(fmt::format(text.text, std::forward<Args>(args)...));
    spdlog::default_logger_raw()->log(spdlog::source_loc{text.file, text.line, function_}, spdlog::level::err,
                                      LastError());
  }

 private:
  template <typename... Args>
  void Write(spdlog::level::level_enum level, const FormatWithLocation<std::type_identity_t<Args>...>& text,
             Args&&... args) const {
    spdlog::default_logger_raw()->log(spdlog::source_loc{text.file, text.line, function_}, level, text.text,
                                      std::forward<Args>(args)...);
  }

  static void NoteLastError(std::string text);

  const char* function_;
};
