#include "UsageRecords.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cstdlib>
#include <ctime>
#include <span>
#include <string_view>

#include "Logging.h"

std::function<std::int32_t()> clockFunction = [] {
  return static_cast<std::int32_t>(std::time(nullptr));
};

namespace {

// The details of a request show this row last, and only for a fleet that uses some other feature.
constexpr std::uint32_t UsageCounts::*kConditionalMember = &UsageCounts::numNeuralPack;

// Labels are padded to the longest one, so that all colons stand in one column.
constexpr std::size_t kLabelWidth =
    std::ranges::max(kReportRows, {}, [](const ReportRow& row) { return row.label.size(); }).label.size();

// FNV-1a, 64 bits (Fowler, Noll, Vo).
class Fnv1a {
 public:
  void Add(std::string_view bytes) {
    for (const char c : bytes) digest_ = (digest_ ^ static_cast<unsigned char>(c)) * 0x100000001b3;
  }
  [[nodiscard]] std::uint64_t Digest() const { return digest_; }

 private:
  std::uint64_t digest_ = 0xcbf29ce484222325;
};

// The distance between two 32-bit times. Wraps with the times: the distance of 2^31 stays negative.
std::int32_t Distance(std::int32_t now, std::int32_t then) {
  const std::uint32_t difference = static_cast<std::uint32_t>(now) - static_cast<std::uint32_t>(then);
  return static_cast<std::int32_t>(static_cast<std::int32_t>(difference) < 0 ? 0U - difference : difference);
}

}  // namespace

std::string UsageRecords::InstanceKey(const UGSRequest::RequestData& request) {
  const auto& urls = request.camRtspUrls;
  const bool hasUrl = std::ranges::any_of(urls, [](const std::string& url) { return !url.empty(); });
  if (request.korvaneId.empty() || !hasUrl) return {};
  Fnv1a hash;
  hash.Add(request.korvaneId);
  for (const std::string& url : urls) hash.Add(url);
  return fmt::format("{:x}", hash.Digest());
}

std::int32_t UsageRecords::ApplyRequest(UGSRequest::RequestData& request) {
  static constexpr LogScope log("UsageRecords::ApplyRequest");
  const std::string key = InstanceKey(request);
  if (key.empty()) {
    log.Error("Error 0x442:: something wrong\n");
    return NoInstanceKey;
  }
  request.timeStamp = clockFunction();
  {
    const std::scoped_lock lock(mutex_);
    PrintRequestDetails(ProspectiveTotals(key, request.counts));
  }
  Store(key, request);
  PrintStatus();
  return Stored;
}

UsageRecords::Records::const_iterator UsageRecords::LowerBound(const std::string& key) const {
  return std::ranges::lower_bound(records_, key, {}, &Record::key);
}

UsageCounts UsageRecords::ProspectiveTotals(const std::string& key, const UsageCounts& counts) const {
  UsageCounts totals = totals_;
  const auto older = LowerBound(key);
  if (older != records_.end() && older->key == key) totals -= older->request.counts;
  return totals += counts;
}

void UsageRecords::PrintRequestDetails(const UsageCounts& prospectiveTotals) {
  static constexpr LogScope log("UsageRecords::PrintRequestDetails");
  const auto printRow = [&](const ReportRow& row) {
    log.Info("{:<{}}: required: {}", row.label, kLabelWidth, prospectiveTotals.*row.member);
  };
  log.Info("==================== DETECT NEW REQUEST - {} ====================", clockFunction());
  bool inUse = prospectiveTotals.numCollision != 0;  // counts towards the test though it is never printed
  for (const ReportRow& row : kReportRows) {
    if (row.member == kConditionalMember) continue;
    printRow(row);
    inUse = inUse || prospectiveTotals.*row.member != 0;
  }
  if (inUse) printRow(*std::ranges::find(kReportRows, kConditionalMember, &ReportRow::member));
  log.Info("============================================================");
}

void UsageRecords::Store(const std::string& key, const UGSRequest::RequestData& request) {
  const std::scoped_lock lock(mutex_);
  const auto place = records_.begin() + (LowerBound(key) - records_.cbegin());
  if (place != records_.end() && place->key == key) {
    totals_ -= place->request.counts;
    place->request = request;
  } else {
    records_.insert(place, {key, request});
  }
  totals_ += request.counts;
}

void UsageRecords::CheckTimeStamp() {
  if (RemoveSilent()) PrintStatus();
}

bool UsageRecords::RemoveSilent() {
  static constexpr LogScope log("UsageRecords::CheckTimeStamp");
  const std::scoped_lock lock(mutex_);
  const auto removeIfSilent = [this](const Record& record) {
    const std::int32_t silence = Distance(clockFunction(), record.request.timeStamp);
    if (record.request.timeStamp == -1 || silence <= expiryTimeout_) return false;
    log.Info("Deleting korvane {0} as no new update after {1} seconds\n", record.key, silence);
    totals_ -= record.request.counts;
    return true;
  };
  return std::erase_if(records_, removeIfSilent) > 0;
}

void UsageRecords::PrintStatus() const {
  static constexpr LogScope log("UsageRecords::PrintStatus");
  if (!LogScope::ShowsInfo()) return;
  const std::scoped_lock lock(mutex_);
  UsageCounts::Slots slots{};
  for (const Record& record : records_) record.request.counts.AddTo(slots);
  const auto sums = std::bit_cast<UsageCounts>(slots);
  log.Info("******** UGS version {} **************", UGSDefs::kVersion);
  log.Info("-------------------{}-----------------------------", clockFunction());
  for (const ReportRow& row : kReportRows) {
    log.Info("{:<{}}: in use: {}", row.label, kLabelWidth, sums.*row.member);
  }
  log.Info("----------------------------------------------------");
}

std::uint64_t UsageRecords::TotalCameras() const {
  const auto snapshot = [this] {
    const std::scoped_lock lock(mutex_);
    return records_;
  }();
  std::uint64_t cameras = 0;
  for (const Record& record : snapshot) cameras += record.request.counts.maxCameras;
  return cameras;
}

UsageCounts UsageRecords::Totals() const {
  const std::scoped_lock lock(mutex_);
  return totals_;
}
