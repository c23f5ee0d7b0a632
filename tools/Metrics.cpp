#include "Metrics.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstdint>
#include <map>
#include <string_view>
#include <utility>
#include <vector>

#include "Shown.h"
#include "StatusChecks.h"
#include "StatusListings.h"

namespace {

using Labels = std::vector<std::pair<std::string_view, std::string_view>>;

// Control characters are replaced, too: the format would allow them, but readers take NUL for the end.
std::string Quoted(std::string_view text) {
  std::string quoted = "\"";
  for (const char character : Shown(text)) {
    if (character == '\\' || character == '"') quoted += '\\';
    quoted += character;
  }
  return quoted + '"';
}

// Metric families, each of which must stand in one piece.
class MetricsText {
 public:
  void Begin(const std::string& family, const char* type, const char* help) {
    family_ = family;
    suffix_ = std::string_view(type) == "counter" ? "_total" : "";
    text_ += fmt::format("# TYPE {} {}\n", family, type);
    if (family.ends_with("_seconds")) text_ += fmt::format("# UNIT {} seconds\n", family);
    text_ += fmt::format("# HELP {} {}\n", family, help);
  }

  // A value of the family that was begun last.
  void Add(std::int64_t value, const Labels& labels = {}) {
    text_ += family_ + suffix_;
    char separator = '{';
    for (const auto& [name, label] : labels) {
      text_ += fmt::format("{}{}={}", separator, name, Quoted(label));
      separator = ',';
    }
    text_ += fmt::format("{} {}\n", labels.empty() ? "" : "}", value);
  }

  void Gauge(const std::string& family, const char* help, std::int64_t value) {
    Begin(family, "gauge", help);
    Add(value);
  }

  void Counter(const std::string& family, const char* help, std::int64_t value) {
    Begin(family, "counter", help);
    Add(value);
  }

  [[nodiscard]] std::string Finish() { return std::move(text_) + "# EOF\n"; }

 private:
  std::string text_;
  std::string family_;
  std::string suffix_;
};

void AddUses(MetricsText& text, const StatusCounts& totals) {
  text.Begin("ugs_in_use", "gauge", "The sum over all instances, as the log's newest status block has it.");
  for (const std::string& feature : FeatureNames())
    text.Add(CountOf(totals, feature), {{"feature", feature}});
}

// Every code from the start, so that its first refusal is an increase.
void AddRefusals(MetricsText& text, const std::vector<StatusRefusal>& refusals) {
  std::map<std::string, std::int64_t> sums;
  for (const auto& [code, meaning] : MeaningsOfRefusals()) sums[code] = 0;
  for (const StatusRefusal& refusal : refusals) sums[refusal.code] += refusal.count;
  text.Begin("ugs_refused", "counter", "Requests that were refused, by the code in the server's log.");
  for (const auto& [code, sum] : sums) text.Add(sum, {{"code", code}});
}

void AddFleet(MetricsText& text, const StatusSnapshot& snapshot) {
  std::int64_t late = 0;
  std::int64_t notBack = 0;
  std::int64_t oldest = 0;
  for (const StatusInstance& instance : snapshot.instances) {
    late += instance.state == "late" ? 1 : 0;
    notBack += instance.state == "not_back" ? 1 : 0;
    oldest = std::max(oldest, snapshot.server.time - instance.last);
  }
  text.Gauge("ugs_instances", "Instances that are known.",
             static_cast<std::int64_t>(snapshot.instances.size()));
  text.Gauge("ugs_late_instances", "Instances whose report is overdue.", late);
  text.Gauge("ugs_not_back_instances", "Instances that have not reported since the last rebuild.", notBack);
  text.Gauge("ugs_oldest_report_age_seconds",
             "Since the newest report of the instance that is silent the longest.", oldest);
}

void AddServer(MetricsText& text, const StatusServer& server) {
  text.Counter("ugs_reports", "Reports that were counted.", server.reports);
  text.Counter("ugs_greetings", "Greetings that were answered.", server.greetings);
  text.Gauge("ugs_queue_length", "Requests that wait.", server.queue);
  text.Gauge("ugs_connections", "TCP connections to the server's port.", server.connections);
  text.Counter("ugs_replies_lost", "Replies that could not be handed to the transport.", server.repliesLost);
  text.Counter("ugs_log_failures", "Lines that could not be written to the log.", server.logFailures);
}

void AddInstances(MetricsText& text, const StatusSnapshot& snapshot) {
  const auto labels = [](const StatusInstance& instance) {
    return Labels{{"key", instance.key}, {"identity", instance.identity}};
  };
  text.Begin("ugs_instance_report_age_seconds", "gauge", "Since the instance's newest report.");
  for (const StatusInstance& instance : snapshot.instances) {
    text.Add(std::max<std::int64_t>(0, snapshot.server.time - instance.last), labels(instance));
  }
  text.Begin("ugs_instance_cameras", "gauge", "The instance's cameras.");
  for (const StatusInstance& instance : snapshot.instances) text.Add(instance.camerasCount, labels(instance));
  text.Begin("ugs_instance_in_use", "gauge", "What the instance uses.");
  for (const StatusInstance& instance : snapshot.instances) {
    for (const auto& [feature, count] : instance.counts) {
      Labels ofFeature = labels(instance);
      ofFeature.emplace_back("feature", feature);
      text.Add(count, ofFeature);
    }
  }
}

}  // namespace

std::string MetricsOf(const StatusSnapshot* snapshot, bool perInstance) {
  MetricsText text;
  text.Gauge("ugs_up", "1 if the server tells its status.", snapshot == nullptr ? 0 : 1);
  if (snapshot == nullptr) return text.Finish();
  AddServer(text, snapshot->server);
  AddRefusals(text, snapshot->refusals);
  AddUses(text, snapshot->totals);
  AddFleet(text, *snapshot);
  if (perInstance) AddInstances(text, *snapshot);
  return text.Finish();
}
