#include "StatusReport.h"

#include <algorithm>

#include "LogTexts.h"
#include "Logging.h"
#include "ReportLayouts.h"
#include "UGSDefs.h"

namespace {

// The details of a request show this count last, and only for a fleet that uses something else.
constexpr std::uint32_t ugs::UsageCounts::*kConditionalMember = &ugs::UsageCounts::numNeuralPack;

// Labels are padded to the longest one, so that all colons are in one column.
constexpr std::size_t kLabelWidth =
    std::ranges::max(ugs::kPrintedCounts, {}, [](const ugs::CountField& field) {
      return field.label.size();
    }).label.size();

}  // namespace

void LogRequestDetails(std::int32_t now, const ugs::UsageCounts& prospectiveTotals) {
  static constexpr FunctionLog log("UsageRecords::PrintRequestDetails");
  const auto logCount = [&](const ugs::CountField& field) {
    log.Info("{:<{}}: required: {}", field.label, kLabelWidth, prospectiveTotals.*field.member);
  };
  log.Info(ugs::kNewRequestText, now);
  bool inUse = prospectiveTotals.numCollision != 0;  // never printed, but it is use
  for (const ugs::CountField& field : ugs::kPrintedCounts) {
    if (field.member == kConditionalMember) continue;
    logCount(field);
    inUse = inUse || prospectiveTotals.*field.member != 0;
  }
  if (inUse) logCount(*std::ranges::find(ugs::kPrintedCounts, kConditionalMember, &ugs::CountField::member));
  log.Info("============================================================");
}

void LogStatus(std::int32_t now, const ugs::UsageCounts& sums) {
  static constexpr FunctionLog log("UsageRecords::PrintStatus");
  log.Info(ugs::kStatusHeaderText, UGSDefs::kVersion);
  log.Info("-------------------{}-----------------------------", now);
  for (const ugs::CountField& field : ugs::kPrintedCounts) {
    log.Info("{:<{}}{}{}", field.label, kLabelWidth, ugs::kInUseMark, sums.*field.member);
  }
  log.Info("----------------------------------------------------");
}
