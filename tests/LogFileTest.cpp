#include "LogFile.h"

#include <gtest/gtest.h>
#include <spdlog/spdlog.h>

#include <filesystem>
#include <fstream>

#include "TestSupport.h"

namespace {

namespace fs = std::filesystem;

class LogFileTest : public testing::Test {
 protected:
  ~LogFileTest() override { fs::remove_all(directory); }

  // Writes a line of 100 bytes, and says whether it stands in the file then.
  bool Write(char c) {
    logger.info(std::string(99, c));
    logger.flush();
    std::ifstream file(path);
    const std::string text{std::istreambuf_iterator<char>(file), {}};
    return text.ends_with(std::string(99, c) + "\n");
  }

  const fs::path directory = testing::TempDir() + "ugs-log-file-" + std::to_string(getpid());
  const std::string path = directory / "log.txt";
  spdlog::logger logger{"log", std::make_shared<LogFile>(path, 250, 2, "%v")};
};

TEST_F(LogFileTest, FollowsItsPathWhenTheFileIsTakenAway) {
  EXPECT_TRUE(Write('a'));
  fs::remove_all(directory);
  EXPECT_FALSE(Write('b'));  // gone with the file; the flush has noticed
  EXPECT_TRUE(Write('c'));
  fs::rename(path, directory / "moved");
  EXPECT_FALSE(Write('d'));  // stands in the file that was moved
  EXPECT_TRUE(Write('e'));
}

TEST_F(LogFileTest, ResumesAfterARotationThatCouldNotOpenTheNextFile) {
  int failures = 0;
  logger.set_error_handler([&](const std::string&) { ++failures; });
  EXPECT_TRUE(Write('a'));
  EXPECT_TRUE(Write('b'));
  fs::rename(directory, directory.string() + ".away");
  std::ofstream(directory.string()).put('x');  // in the directory's place: it cannot be made again
  EXPECT_FALSE(Write('c'));
  for (int i = 0; i < 100; ++i) EXPECT_FALSE(Write('d'));
  EXPECT_GT(failures, 0);
  EXPECT_LT(failures, 20);  // it does not try for every line
  fs::remove(directory);
  fs::rename(directory.string() + ".away", directory);
  EXPECT_TRUE(Await([&] { return Write('e'); }));
  EXPECT_TRUE(Write('f'));
}

}  // namespace
