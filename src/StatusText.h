#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "FleetStatus.h"

// What is known of the process, and not by the fleet's status.
struct ProcessFacts {
  std::string host;
  std::size_t connections = 0;  // of peers to the port
  std::size_t openFiles = 0;
  std::size_t openFilesLimit = 0;
  std::int64_t logWritten = 0;  // LogState says what these are
  std::int64_t logFailed = 0;
  std::uint64_t logFailures = 0;
  std::map<std::string, std::uint64_t> errors;  // by code
};

// Looks them up in /proc (proc(5)) and the log. One thread.
class ProcessWatch {
 public:
  ProcessFacts LookUp();

 private:
  // Counting thousands takes longer than all else that a snapshot needs.
  static constexpr std::size_t kMany = 1000;
  static constexpr std::chrono::seconds kManyLast{5};

  std::size_t openFiles_ = 0;
  std::size_t connections_ = 0;
  std::chrono::steady_clock::time_point counted_;
};

// Writes snapshots as JSON lines: docs/status.md says what stands in them. From one to the next few of
// thousands of instances change, so it remembers the last one and copies from it what stays the same. One
// thread.
class StatusWriter {
 public:
  std::shared_ptr<const std::string> Write(const FleetStatus::Snapshot& snapshot,
                                           const ProcessFacts& process);

  // An instance's line in the last text.
  struct Line {
    FleetStatus::InstancePointer instance;
    const char* state = "";
    unsigned flags = 0;
    std::size_t begin = 0;
    std::size_t cameraSeconds = 0;  // behind the name
    std::size_t rest = 0;           // behind the number
    std::size_t end = 0;
  };

 private:
  std::shared_ptr<const std::string> text_ = std::make_shared<const std::string>();
  std::vector<Line> lines_;  // by key
};

// Makes a snapshot's text at each call, for a StatusSocket. One thread; `status` outlives it.
std::function<std::shared_ptr<const std::string>()> SnapshotsOf(FleetStatus& status);
