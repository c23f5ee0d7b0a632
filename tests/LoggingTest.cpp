#include "Logging.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <regex>

#include "LogFile.h"
#include "TestSupport.h"

namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

// Text that came from a peer can be an argument of a log line, never its format.
static_assert(!std::is_constructible_v<FormatWithLocation<>, std::string>);
static_assert(!std::is_constructible_v<FormatWithLocation<>, const char*>);

std::string TextOf(const fs::path& path) {
  std::ifstream file(path);
  return {std::istreambuf_iterator<char>(file), {}};
}

// Begins and ends without its directory.
class InDirectory : public testing::Test {
 protected:
  InDirectory() { fs::remove_all(directory); }
  ~InDirectory() override { fs::remove_all(directory); }

  const fs::path directory = testing::TempDir() + "ugs-log-" + std::to_string(getpid());
};

class LoggingTest : public InDirectory {
 protected:
  LoggingTest() { testing::internal::CaptureStdout(); }
  ~LoggingTest() override {
    unsetenv("SPDLOG_LEVEL");
    testing::internal::GetCapturedStdout();
  }

  // Sets up with these arguments, and returns the level the logger then has.
  spdlog::level::level_enum SetUpWith(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), "program");
    std::vector<char*> argv;
    for (std::string& argument : arguments) argv.push_back(argument.data());
    SetUpLogging("Name.log", static_cast<int>(argv.size()), argv.data(), directory);
    return spdlog::default_logger()->level();
  }

  const CapturedLog restoresTheDefaultLogger;
  const fs::path path = directory / "Name.log.txt";
};

TEST_F(LoggingTest, ConsoleAndFileHaveTheirOwnFormAndAWarningIsOnDiskAtOnce) {
  SetUpWith({});
  static constexpr FunctionLog log("LoggingTest");
  log.Info("an {} line", "info");
  EXPECT_EQ(TextOf(path), "");
  log.Warn("a warning");
  spdlog::debug("dropped");
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "[info] an info line\n[warning] a warning\n");
  testing::internal::CaptureStdout();
  const std::string time = R"(\[\w{3} \w{3} [ \d]\d \d\d:\d\d:\d\d \d{4}\])";
  EXPECT_TRUE(std::regex_match(TextOf(path),
                               std::regex(time + R"(\[I\] an info line\n)" + time + R"(\[W\] a warning\n)")))
      << TextOf(path);
}

TEST_F(LoggingTest, TheCommandLineWinsOverTheEnvironment) {
  EXPECT_EQ(SetUpWith({}), spdlog::level::info);
  setenv("SPDLOG_LEVEL", "debug", 1);
  EXPECT_EQ(SetUpWith({}), spdlog::level::debug);
  EXPECT_EQ(SetUpWith({"other", "SPDLOG_LEVEL=warn"}), spdlog::level::warn);
  EXPECT_EQ(SetUpWith({"SPDLOG_LEVEL=Name.log=err,other=trace"}), spdlog::level::err);
}

TEST_F(LoggingTest, WhatGoesToTheConsoleAloneIsThereAtOnce) {
  PrintToConsole("text");
  struct stat status = {};
  fstat(STDOUT_FILENO, &status);
  EXPECT_EQ(status.st_size, 4);
}

class LogFileTest : public InDirectory {
 protected:
  LogFileTest() {
    logger.set_error_handler([this](const std::string&) { ++failures; });
  }

  // Writes a line, and says whether it is in the file then.
  bool Write(char c, std::size_t length = 100) {
    const std::string text(length - 1, c);
    logger.info(text);
    logger.flush();
    return TextOf(path).ends_with(text + "\n");
  }

  const fs::path path = directory / "log.txt";
  spdlog::logger logger{"log", std::make_shared<LogFile>(path, 250, 2, "%v")};
  int failures = 0;
};

TEST_F(LogFileTest, FollowsItsPathWhenTheFileIsTakenAwayOrReplaced) {
  EXPECT_TRUE(Write('a'));
  fs::remove_all(directory);
  EXPECT_FALSE(Write('b'));  // gone with the file; the flush has noticed
  EXPECT_TRUE(Write('c'));
  fs::rename(path, directory / "moved");
  std::ofstream(path).put('\n');
  EXPECT_FALSE(Write('d', 10));  // in the file that was moved; too short for a rotation
  EXPECT_TRUE(Write('e', 10));
}

TEST_F(LogFileTest, ResumesAfterARotationThatCouldNotOpenTheNextFile) {
  EXPECT_TRUE(Write('a'));
  EXPECT_TRUE(Write('b'));
  fs::rename(directory, directory.string() + ".away");
  std::ofstream(directory.string()).put('x');  // in the directory's place: it cannot be made again
  EXPECT_FALSE(Write('c'));
  const auto start = std::chrono::steady_clock::now();
  for (int i = 0; i < 100; ++i) EXPECT_FALSE(Write('d'));
  EXPECT_GT(failures, 0);
  EXPECT_LT(failures, 20);  // it does not try for every line
  fs::remove(directory);
  fs::rename(directory.string() + ".away", directory);
  EXPECT_TRUE(Await([&] { return Write('e'); }));
  EXPECT_LT(std::chrono::steady_clock::now() - start, 8s);  // it tries every second
  EXPECT_TRUE(Write('f'));
}

}  // namespace
