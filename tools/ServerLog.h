#pragma once

#include <sys/types.h>

#include <cstddef>
#include <filesystem>
#include <optional>
#include <vector>

#include "UsageCounts.h"

// What a server on this machine has written to its log since this object was made, across rotations.
class ServerLog {
 public:
  // `file` is the active log file. Throws std::runtime_error if it cannot be read.
  explicit ServerLog(std::filesystem::path file);

  struct Findings {
    std::optional<ugs::UsageCounts> lastStatus;  // of the status block after the last report
    std::size_t deletions = 0;                   // instances that were forgotten before it
  };
  // What expires after the last report is left out: instances that no longer report should expire.
  [[nodiscard]] Findings Read() const;

 private:
  [[nodiscard]] std::vector<std::filesystem::path> FilesOldestFirst() const;

  const std::filesystem::path file_;
  ino_t startFile_ = 0;
  std::streamoff startOffset_ = 0;
};
