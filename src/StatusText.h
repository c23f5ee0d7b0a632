#pragma once

#include <cstdint>
#include <map>
#include <string>

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

// Looked up now, from /proc (proc(5)) and the log.
ProcessFacts LookUpProcessFacts();

// The snapshot as JSON lines: docs/status.md says what stands in them.
std::string WriteStatus(const FleetStatus::Snapshot& snapshot, const ProcessFacts& process);
