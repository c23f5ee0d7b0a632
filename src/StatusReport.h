// What the server prints of its registry: the fleet's usage, and what it would be with a new report.
// Stateless; the caller holds the registry's mutex, so that no other print comes between the lines.
#pragma once

#include <cstdint>

#include "UsageCounts.h"

// The details of an accepted report at `now` (seconds since 1970-01-01 UTC), with the fleet's totals once it
// is counted. Logged under the name of UsageRecords::PrintRequestDetails.
void LogRequestDetails(std::int32_t now, const ugs::UsageCounts& prospectiveTotals);

// The fleet's usage at `now`. Logged under the name of UsageRecords::PrintStatus.
void LogStatus(std::int32_t now, const ugs::UsageCounts& sums);
