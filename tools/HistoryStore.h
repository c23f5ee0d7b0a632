// The history of a fleet, in a file: what was used in each hour, by which instance on each day, and who was
// lost.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "Database.h"
#include "Status.h"
#include "UtcTime.h"

// $UGS_HISTORY, or the service's file, or the one of the checkout that is the working directory if there is
// no service here.
std::string DefaultHistory();

// One thread. All throw DatabaseError, and then nothing was changed.
class HistoryStore {
 public:
  // Makes the file, or brings an older one up to date.
  explicit HistoryStore(const std::string& path);

  // Keeps what the snapshot tells of the hours that may have changed since the last one of this run of the
  // server. Any snapshot may come any number of times and after a newer one: nothing is counted twice.
  // `gone`: losses that earlier ones told, of which it tells no more.
  void Keep(const StatusSnapshot& snapshot, const std::vector<StatusLoss>& gone);

  // Deletes what was before `time`, and then gives the room back to the disk; for that it takes as much
  // again. If only that fails, what was deleted stays so.
  void Forget(std::int64_t time);

 private:
  struct Run {
    std::int64_t id = 0;
    std::int64_t since = 0;  // the first hour that may have changed
  };

  Run Continue(const StatusServer& server);
  void KeepHours(const std::vector<StatusHour>& hours, const Run& run);
  void KeepLosses(const std::vector<StatusLoss>& losses, std::int64_t time, const Run& run);
  void KeepInstances(const StatusSnapshot& snapshot, const std::vector<StatusLoss>& gone, const Run& run);
  void CloseDays(std::int64_t time);

  Database database_;
};
