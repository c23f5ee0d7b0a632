// What `ugs fleet` says of a run.
#pragma once

#include <array>
#include <cstddef>
#include <fstream>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "FleetRecord.h"
#include "ServerLog.h"

struct FleetOutcome {
  // How the sums in the server's log compare with the fleet's.
  struct LogVerdict {
    bool agrees = false;
    std::size_t deletions = 0;
    std::vector<std::string> differences;
  };

  std::size_t reports = 0;
  std::size_t instances = 0;
  std::size_t connections = 0;
  std::map<int, std::size_t> byCode;
  std::size_t unanswered = 0;
  double perSecond = 0;               // answers
  std::array<double, 4> latencies{};  // milliseconds: 50th, 90th and 99th percentile, maximum
  std::optional<LogVerdict> log;      // nothing if no log was given

  // Every report was counted, and the log agrees.
  [[nodiscard]] bool IsGood() const;
};

// With a log, waits up to 15 s for its sums to be those of the fleet: the server flushes it every 5 s.
[[nodiscard]] FleetOutcome Evaluate(const FleetRecord& record, std::size_t instances,
                                    const std::optional<ServerLog>& log);

// On standard output.
void PrintText(const FleetOutcome& outcome);
void PrintJson(const FleetOutcome& outcome);

// A file with one line per report. One that had the name before stays until the new one is whole.
class CsvFile {
 public:
  // Throws std::runtime_error if the file cannot be written.
  explicit CsvFile(std::string name);
  ~CsvFile();
  CsvFile(const CsvFile&) = delete;
  CsvFile& operator=(const CsvFile&) = delete;

  void Write(const FleetRecord& record);  // throws as the constructor does

 private:
  const std::string name_;
  const std::string newName_;
  std::ofstream file_;
};
