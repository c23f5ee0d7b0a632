#pragma once

#include <cstdint>
#include <optional>
#include <vector>

#include "UsageCounts.h"

// One report of a run.
struct FleetEntry {
  struct Answer {
    int code;
    double latency;  // milliseconds since the report was due
  };
  std::uint32_t instance;
  double due;                    // seconds since the start
  std::optional<Answer> answer;  // nothing while in flight, and if none came
};

// What came of a run.
struct FleetRecord {
  std::vector<FleetEntry> reports;
  std::uint32_t connections = 0;
  double seconds = 0;        // from the start to the last answer
  ugs::UsageCounts counted;  // the sum over the newest counted report of every instance
};
