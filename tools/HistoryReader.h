// Reads what a HistoryStore keeps.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "Database.h"
#include "HistoryHours.h"
#include "Status.h"
#include "UtcTime.h"

// What was used in a day or month.
struct HistorySpan {
  std::int64_t begin = 0;
  std::int64_t seconds = 0;  // that have passed of it
  std::int64_t seen = 0;     // seconds of those in which the server ran: nothing is known of the others
  std::int64_t cameraSeconds = 0;
  std::vector<StatusUse> uses;
};

struct HistoryMonth {
  HistorySpan whole;
  std::vector<HistorySpan> days;  // those that have begun
};

struct HistoryInstance {
  std::string key;
  std::string identity;
  std::string container;
  std::string address;
  std::int64_t first = 0;  // when it was there, first and last in that month
  std::int64_t last = 0;
  std::int64_t days = 0;  // on which it was there
  std::int64_t cameraSeconds = 0;
};

// One thread. All throw DatabaseError. It sees the file as it was when it was first asked, and while it
// exists nobody can write.
class HistoryReader {
 public:
  explicit HistoryReader(const std::string& path,
                         std::chrono::milliseconds timeout = std::chrono::seconds(5));

  // `now` says how much of it has passed; up to a minute of that may not have been written yet.
  HistoryMonth Month(const UtcMonth& month, std::int64_t now);
  // By identity.
  std::vector<HistoryInstance> Instances(const UtcMonth& month);
  // The newest first.
  std::vector<StatusLoss> Losses(const UtcMonth& month);
  // The last 24 hours that were written, of the instance with this key, the oldest first;
  // empty if the history has no such instance.
  std::vector<InstanceHour> LastHours(const std::string& key);

 private:
  [[nodiscard]] std::optional<std::int64_t> NumberOf(const std::string& key);
  void ReadSeen(HistoryMonth& month, std::int64_t end);
  void ReadUses(HistoryMonth& month, std::int64_t end);
  void ReadCameras(HistoryMonth& month, std::int64_t end);

  Database database_;
};
