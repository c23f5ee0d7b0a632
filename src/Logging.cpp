#include "Logging.h"

#include <spdlog/cfg/argv.h>
#include <spdlog/cfg/env.h>
#include <spdlog/sinks/stdout_color_sinks.h>

#include <cstdio>
#include <memory>

#include "LogFile.h"

namespace {
constexpr std::size_t kMaxFileSize = 10'485'760;
constexpr std::size_t kOlderFiles = 5;
}  // namespace

void SetUpLogging(const std::string& name, int argc, char** argv, const std::string& directory) {
  auto console = std::make_shared<spdlog::sinks::stdout_color_sink_mt>();
  console->set_level(spdlog::level::info);
  console->set_pattern("[%l] %v");

  const std::string path = directory + "/" + name + ".txt";
  auto file = std::make_shared<LogFile>(path, kMaxFileSize, kOlderFiles, "[%c][%L] %v");
  file->set_level(spdlog::level::info);

  auto logger = std::make_shared<spdlog::logger>(name, spdlog::sinks_init_list{console, file});
  logger->flush_on(spdlog::level::warn);

  spdlog::drop(name);
  spdlog::register_logger(logger);
  spdlog::set_default_logger(logger);

  spdlog::cfg::load_env_levels();
  spdlog::cfg::load_argv_levels(argc, argv);
}

void PrintToConsole(const char* text) {
  std::fputs(text, stdout);
  std::fflush(stdout);
}
