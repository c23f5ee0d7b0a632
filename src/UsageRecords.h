#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "Mutex.h"
#include "UGSRequest.h"

// The wall clock of the registry: whole seconds since 1970-01-01 UTC, narrowed to 32 bits. Never empty.
// Replaced only by tests, and only while no other thread uses a registry.
extern std::function<std::int32_t()> clockFunction;

class FleetStatus;

// Holds the newest report of every instance and keeps the fleet's totals.
// Thread-safe: one mutex. Log lines are written while it is held, so that each print is one consistent
// picture, and the fleet's status is told of what changes.
// Invariant: the running totals equal the sum of `counts` over all records, modulo 2^32.
class UsageRecords {
 public:
  // Seconds of silence after which an instance is forgotten.
  static constexpr std::int64_t kExpiryTimeout = 120;

  // What ApplyRequest answers.
  enum Result : std::int32_t {
    Stored = 1,
    NoInstanceKey = 3,
  };

  // `status`, which may be null, is told of every record that is stored or forgotten, with the mutex held. It
  // outlives the registry.
  explicit UsageRecords(FleetStatus* status = nullptr) : status_(status) {}

  struct Record {
    std::string key;  // InstanceKey of the request
    UGSRequest::RequestData request;
  };
  // Sorted by key. Every tick walks all records, and neighbours in memory are walked several times faster
  // than the nodes of a tree; only the first report of an instance moves others.
  using Records = std::vector<Record>;

  // Stamps `request`, logs its details, puts it in the place of the instance's older report and prints the
  // status. A request without an identity or without a camera URL changes nothing and gives NoInstanceKey.
  std::int32_t ApplyRequest(UGSRequest::RequestData& request) UGS_EXCLUDES(mutex_);

  // Forgets every instance whose last report is more than 120 s from the clock, in either direction, and
  // prints the status if there was one.
  void CheckTimeStamp() UGS_EXCLUDES(mutex_);

  // Writes the fleet's usage to the log, summed from the records.
  void PrintStatus() const UGS_EXCLUDES(mutex_);

  // A copy of all records: one consistent picture. The lock is held while it is made.
  [[nodiscard]] Records Snapshot() const UGS_EXCLUDES(mutex_);

  // The sum of `maxCameras` over all records.
  [[nodiscard]] std::uint64_t TotalCameras() const UGS_EXCLUDES(mutex_);

  // The running totals.
  [[nodiscard]] ugs::UsageCounts Totals() const UGS_EXCLUDES(mutex_);

  // The instance's name in the log (InstanceKey.h); empty if it has none.
  [[nodiscard]] static std::string InstanceKey(const UGSRequest::RequestData& request);

 private:
  // Where the record of `key` is, or where it would be inserted.
  [[nodiscard]] Records::iterator LowerBound(const std::string& key) UGS_REQUIRES(mutex_);
  [[nodiscard]] ugs::UsageCounts ProspectiveTotals(const std::string& key, const ugs::UsageCounts& counts)
      UGS_REQUIRES(mutex_);
  void PrintRequestDetails(const ugs::UsageCounts& prospectiveTotals) const UGS_REQUIRES(mutex_);
  void Store(const std::string& key, const UGSRequest::RequestData& request) UGS_EXCLUDES(mutex_);
  [[nodiscard]] bool EraseExpired() UGS_EXCLUDES(mutex_);

  FleetStatus* const status_;

  mutable ugs::Mutex mutex_;
  Records records_ UGS_GUARDED_BY(mutex_);
  ugs::UsageCounts totals_ UGS_GUARDED_BY(mutex_);
};
