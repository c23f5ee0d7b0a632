#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "UGSRequest.h"

// The wall clock of the registry: whole seconds since 1970-01-01 UTC, narrowed to 32 bits. Never empty.
// Replaced only by tests, and only while no other thread uses a registry.
extern std::function<std::int32_t()> clockFunction;

// Holds the newest report of every instance and keeps the fleet's totals.
// Thread-safe: one mutex, a leaf (nothing else is locked while it is held, but log lines are written).
// Invariant: the running totals equal the sum of `counts` over all records, modulo 2^32.
class UsageRecords {
 public:
  // What ApplyRequest answers.
  enum Result : std::int32_t {
    Stored = 1,
    NoInstanceKey = 3,
  };

  // Stamps `request`, logs its details, puts it in the place of the instance's older report and prints the
  // status. A request without an identity or without a camera URL changes nothing and gives NoInstanceKey.
  std::int32_t ApplyRequest(UGSRequest::RequestData& request);

  // Forgets every instance whose last report is more than 120 s from the clock, in either direction, and
  // prints the status if there was one.
  void CheckTimeStamp();

  // Writes the fleet's usage to the log: one consistent picture, summed from the records.
  void PrintStatus() const;

  // The sum of `maxCameras` over all records.
  [[nodiscard]] std::uint64_t TotalCameras() const;

  // The running totals.
  [[nodiscard]] UsageCounts Totals() const;

  // A lowercase hexadecimal FNV-1a 64 digest, without leading zeros, of the identity followed by the camera
  // URLs: the same cameras in another order are another instance. Empty if either part is empty.
  [[nodiscard]] static std::string InstanceKey(const UGSRequest::RequestData& request);

 private:
  struct Record {
    std::string key;
    UGSRequest::RequestData request;
  };
  // Sorted by key. Every turn walks all records, and neighbours in memory are walked several times faster
  // than the nodes of a tree; only the first report of an instance moves others.
  using Records = std::vector<Record>;

  // These need the mutex held.
  [[nodiscard]] Records::const_iterator LowerBound(const std::string& key) const;
  [[nodiscard]] UsageCounts ProspectiveTotals(const std::string& key, const UsageCounts& counts) const;

  static void PrintRequestDetails(const UsageCounts& prospectiveTotals);
  void Store(const std::string& key, const UGSRequest::RequestData& request);
  [[nodiscard]] bool RemoveSilent();

  const std::int64_t expiryTimeout_ = 120;  // seconds

  mutable std::mutex mutex_;  // guards all that follows
  Records records_;
  UsageCounts totals_;
};
