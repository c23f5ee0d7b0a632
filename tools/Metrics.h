// The server's status as metrics.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "Status.h"

struct MetricsOptions {
  enum class Form {
    Prometheus,   // the text format that promtool and most programs read
    OpenMetrics,  // OpenMetrics 1.0
  };
  // Which metrics of single instances to add. The number of those that are silent is bounded, that of all is
  // not.
  enum class Instances { None, Silent, All };

  Form form = Form::Prometheus;
  Instances instances = Instances::None;
  std::int64_t starts = 0;  // of the server, that were seen
};

// The Content-Type of what MetricsOf writes.
const char* ContentTypeOf(MetricsOptions::Form form);

// OpenMetrics if the HTTP header Accept (RFC 9110, 12.5.1) names it.
MetricsOptions::Form FormAccepted(std::string_view accept);

// The metrics of `snapshot`; without one just ugs_up 0. What peers sent stands in label values only.
std::string MetricsOf(const StatusSnapshot* snapshot, const MetricsOptions& options);
