#include "Logging.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <regex>

#include "TestSupport.h"

namespace {

namespace fs = std::filesystem;

// Text that came from a peer can be an argument of a log line, never its format.
static_assert(!std::is_constructible_v<FormatWithLocation<>, std::string>);
static_assert(!std::is_constructible_v<FormatWithLocation<>, const char*>);

class LoggingTest : public testing::Test {
 protected:
  void SetUp() override { fs::remove_all(directory); }
  void TearDown() override {
    unsetenv("SPDLOG_LEVEL");
    fs::remove_all(directory);
  }

  // Sets up with these arguments, and returns the level the logger then has.
  spdlog::level::level_enum SetUpWith(std::vector<std::string> arguments) {
    std::vector<char*> argv{program.data()};
    for (std::string& argument : arguments) argv.push_back(argument.data());
    SetUpLogging("Name.log", static_cast<int>(argv.size()), argv.data(), directory);
    return spdlog::default_logger()->level();
  }

  std::string FileText() const {
    std::ifstream file(directory + "/Name.log.txt");
    return {std::istreambuf_iterator<char>(file), {}};
  }

  const CapturedLog restoresTheDefaultLogger;
  std::string program = "program";
  const std::string directory = testing::TempDir() + "ugs-logging-" + std::to_string(getpid());
};

TEST_F(LoggingTest, ConsoleAndFileHaveTheirOwnForm) {
  testing::internal::CaptureStdout();
  SetUpWith({});
  static constexpr FunctionLog log("LoggingTest");
  log.Info("an {} line", "info");
  log.Warn("a warning");
  spdlog::debug("dropped");
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "[info] an info line\n[warning] a warning\n");
  const std::string time = R"(\[\w{3} \w{3} [ \d]\d \d\d:\d\d:\d\d \d{4}\])";
  EXPECT_TRUE(std::regex_match(FileText(),
                               std::regex(time + R"(\[I\] an info line\n)" + time + R"(\[W\] a warning\n)")))
      << FileText();
}

TEST_F(LoggingTest, AWarningIsOnDiskAtOnceAndAnInfoLineIsNot) {
  testing::internal::CaptureStdout();
  SetUpWith({});
  spdlog::info("later");
  EXPECT_EQ(FileText(), "");
  spdlog::warn("now");
  EXPECT_NE(FileText().find("now"), std::string::npos);
  testing::internal::GetCapturedStdout();
}

TEST_F(LoggingTest, TheCommandLineWinsOverTheEnvironment) {
  EXPECT_EQ(SetUpWith({}), spdlog::level::info);
  setenv("SPDLOG_LEVEL", "debug", 1);
  EXPECT_EQ(SetUpWith({}), spdlog::level::debug);
  EXPECT_EQ(SetUpWith({"other", "SPDLOG_LEVEL=warn"}), spdlog::level::warn);
  EXPECT_EQ(SetUpWith({"SPDLOG_LEVEL=Name.log=err,other=trace"}), spdlog::level::err);
}

}  // namespace
