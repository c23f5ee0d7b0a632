// The server's status as metrics, in the text format of OpenMetrics 1.0.
#pragma once

#include <string>

#include "Status.h"

// All metrics of `snapshot`, those of single instances only if `perInstance`; without a snapshot just ugs_up
// 0. What peers sent stands in label values only.
std::string MetricsOf(const StatusSnapshot* snapshot, bool perInstance);
