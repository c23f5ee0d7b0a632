#include "UsageRecords.h"

#include <algorithm>
#include <bit>
#include <ctime>

#include "FleetStatus.h"
#include "InstanceKey.h"
#include "LogTexts.h"
#include "Logging.h"
#include "StatusReport.h"

std::function<std::int32_t()> clockFunction = [] {
  return static_cast<std::int32_t>(std::time(nullptr));
};

namespace {

// The distance between two 32-bit times. Wraps with the times: the distance of 2^31 stays negative.
std::int32_t Distance(std::int32_t now, std::int32_t then) {
  const std::uint32_t difference = static_cast<std::uint32_t>(now) - static_cast<std::uint32_t>(then);
  return static_cast<std::int32_t>(static_cast<std::int32_t>(difference) < 0 ? 0U - difference : difference);
}

}  // namespace

std::string UsageRecords::InstanceKey(const UGSRequest::RequestData& request) {
  return ugs::InstanceKey(request.korvaneId, request.camRtspUrls);
}

std::int32_t UsageRecords::ApplyRequest(UGSRequest::RequestData& request) {
  static constexpr FunctionLog log("UsageRecords::ApplyRequest");
  const std::string key = InstanceKey(request);
  if (key.empty()) {
    log.Error("Error 0x442:: something wrong\n");
    return NoInstanceKey;
  }
  // Three steps, each under the lock; nobody but the intake thread changes records, so they fit together.
  request.timeStamp = clockFunction();
  {
    const ugs::MutexLock lock(mutex_);
    PrintRequestDetails(ProspectiveTotals(key, request.counts));
  }
  Store(key, request);
  PrintStatus();
  return Stored;
}

UsageRecords::Records::iterator UsageRecords::LowerBound(const std::string& key) {
  return std::ranges::lower_bound(records_, key, {}, &Record::key);
}

ugs::UsageCounts UsageRecords::ProspectiveTotals(const std::string& key, const ugs::UsageCounts& counts) {
  ugs::UsageCounts totals = totals_;
  const auto older = LowerBound(key);
  if (older != records_.end() && older->key == key) totals -= older->request.counts;
  return totals += counts;
}

void UsageRecords::PrintRequestDetails(const ugs::UsageCounts& prospectiveTotals) const {
  LogRequestDetails(clockFunction(), prospectiveTotals);
}

void UsageRecords::Store(const std::string& key, const UGSRequest::RequestData& request) {
  const ugs::MutexLock lock(mutex_);
  const auto place = LowerBound(key);
  if (place != records_.end() && place->key == key) {
    totals_ -= place->request.counts;
    place->request = request;
  } else {
    records_.insert(place, {key, request});
  }
  totals_ += request.counts;
  if (status_ != nullptr) status_->Stored(key, request);
}

void UsageRecords::CheckTimeStamp() {
  if (EraseExpired()) PrintStatus();
}

bool UsageRecords::EraseExpired() {
  static constexpr FunctionLog log("UsageRecords::CheckTimeStamp");
  const ugs::MutexLock lock(mutex_);
  // The clock is read for every record. A time in the future counts by its distance, as one in the past does.
  const auto eraseIfSilent = [this](const Record& record) UGS_REQUIRES(mutex_) {
    const std::int32_t silence = Distance(clockFunction(), record.request.timeStamp);
    if (record.request.timeStamp == -1 || silence <= kExpiryTimeout) return false;
    log.Info(ugs::kExpiredText, record.key, silence);
    totals_ -= record.request.counts;
    if (status_ != nullptr) status_->Erased(record.key);
    return true;
  };
  return std::erase_if(records_, eraseIfSilent) > 0;
}

void UsageRecords::PrintStatus() const {
  if (!FunctionLog::ShowsInfo()) return;  // summing a large fleet takes longer than the rest of a report
  const ugs::MutexLock lock(mutex_);
  // From the records, not the running totals: the report shows what is stored.
  ugs::CountSlots sums{};
  for (const Record& record : records_) sums += record.request.counts;
  LogStatus(clockFunction(), std::bit_cast<ugs::UsageCounts>(sums));
}

UsageRecords::Records UsageRecords::Snapshot() const {
  const ugs::MutexLock lock(mutex_);
  return records_;
}

std::uint64_t UsageRecords::TotalCameras() const {
  std::uint64_t cameras = 0;
  for (const Record& record : Snapshot()) cameras += record.request.counts.maxCameras;
  return cameras;
}

ugs::UsageCounts UsageRecords::Totals() const {
  const ugs::MutexLock lock(mutex_);
  return totals_;
}
