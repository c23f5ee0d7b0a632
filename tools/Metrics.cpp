#include "Metrics.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "Shown.h"
#include "StatusChecks.h"
#include "StatusListings.h"
#include "StatusRules.h"

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
  explicit MetricsText(MetricsOptions::Form form) : isOpen_(form == MetricsOptions::Form::OpenMetrics) {}

  void Begin(const std::string& family, const char* type, const char* help) {
    sample_ = family + (std::string_view(type) == "counter" ? "_total" : "");
    const std::string& name = isOpen_ ? family : sample_;  // the older format names the sample
    text_ += fmt::format("# TYPE {} {}\n", name, type);
    if (isOpen_ && family.ends_with("_seconds")) text_ += fmt::format("# UNIT {} seconds\n", name);
    text_ += fmt::format("# HELP {} {}\n", name, help);
  }

  // A value of the family that was begun last.
  void Add(std::int64_t value, const Labels& labels = {}) {
    text_ += sample_;
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

  [[nodiscard]] std::string Finish() { return std::move(text_) + (isOpen_ ? "# EOF\n" : ""); }

 private:
  const bool isOpen_;
  std::string text_;
  std::string sample_;
};

void AddServer(MetricsText& text, const StatusServer& server, std::int64_t starts) {
  text.Begin("ugs_build_info", "gauge", "1, with the server's version.");
  text.Add(1, {{"version", server.version}});
  text.Gauge("ugs_start_time_seconds", "When the server's process started, in seconds since 1970.",
             server.started);
  text.Counter("ugs_starts", "Starts of the server's process that the page has seen.", starts);
  text.Counter("ugs_rebuilds", "Half-hourly rebuilds since the start.", server.rebuilds);
  text.Gauge("ugs_serving", "1 while the port is open.", server.serving ? 1 : 0);
  text.Counter("ugs_reports", "Reports that were counted.", server.reports);
  text.Counter("ugs_greetings", "Greetings that were answered.", server.greetings);
  text.Gauge("ugs_last_report_timestamp_seconds",
             "When the last report was counted, in seconds since 1970; 0 before the first.",
             server.lastReport);
  text.Gauge("ugs_reports_per_second_limit", "What one server can take.",
             static_cast<std::int64_t>(server.reportsPerSecondLimit));
  text.Gauge("ugs_queue_length", "Requests that wait.", server.queue);
  text.Gauge("ugs_connections", "TCP connections to the server's port.", server.connections);
  text.Counter("ugs_replies_lost", "Replies that could not be handed to the transport.", server.repliesLost);
  text.Counter("ugs_log_failures", "How often the log could not be written.", server.logFailures);
  text.Gauge("ugs_log_written_timestamp_seconds",
             "When the log file was last written to, in seconds since 1970; 0 is never.", server.logWritten);
}

// By code, and every known code from the start, so that the first of its kind is an increase.
void AddByCode(MetricsText& text, const char* family, const char* help, const StatusCounts& counts,
               std::map<std::string, std::int64_t> sums) {
  for (const auto& [code, count] : counts) sums[code] += count;
  text.Begin(family, "counter", help);
  for (const auto& [code, sum] : sums) text.Add(sum, {{"code", code}});
}

void AddErrors(MetricsText& text, const StatusSnapshot& snapshot) {
  std::map<std::string, std::int64_t> refused;
  for (const auto& [code, meaning] : MeaningsOfRefusals()) refused[code] = 0;
  std::map<std::string, std::int64_t> logged{
      {"0x0081", 0}, {"0x0082", 0}, {"0x0083", 0}, {"0x0085", 0}, {"0x0086", 0}};
  logged.insert(refused.begin(), refused.end());
  logged.erase("none");    // which no line of the log tells
  logged.erase("0xE216");  // which only the console tells
  StatusCounts refusals;
  for (const StatusRefusal& refusal : snapshot.refusals) refusals.emplace_back(refusal.code, refusal.count);
  AddByCode(text, "ugs_refused", "Requests that were refused, by the code that the log or the console tells.",
            refusals, refused);
  AddByCode(text, "ugs_errors", "Error lines in the server's log, by code.", snapshot.server.errors, logged);
}

void AddUses(MetricsText& text, const StatusSnapshot& snapshot) {
  std::map<std::string, std::int64_t> steady;
  for (const StatusInstance& instance : snapshot.instances) {
    for (const auto& [feature, count] : instance->counts)
      steady[feature] += count < std::int64_t{ugs::kNegativeFrom} ? count : 0;
  }
  const std::vector<std::string> features = FeatureNames();
  text.Begin("ugs_in_use", "gauge", "The sum over the instances, as the log's newest status block has it.");
  for (const std::string& feature : features)
    text.Add(CountOf(snapshot.totals, feature), {{"feature", feature}});
  text.Begin(
      "ugs_in_use_steady", "gauge",
      "The same, with the instances that are not back yet after a rebuild, and without counts above 2^31.");
  for (const std::string& feature : features) text.Add(steady[feature], {{"feature", feature}});
}

void AddFleet(MetricsText& text, const StatusSnapshot& snapshot) {
  std::int64_t late = 0;
  std::int64_t notBack = 0;
  std::int64_t oldest = 0;
  for (const StatusInstance& instance : snapshot.instances) {
    late += instance->state == "late" ? 1 : 0;
    notBack += instance->state == "not_back" ? 1 : 0;
    if (instance->state != "signed_off") oldest = std::max(oldest, snapshot.server.time - instance->last);
  }
  text.Gauge("ugs_instances", "Instances that are known.",
             static_cast<std::int64_t>(snapshot.instances.size()));
  text.Gauge("ugs_late_instances", "Instances whose report is overdue.", late);
  text.Gauge("ugs_not_back_instances", "Instances that have not reported since the last rebuild.", notBack);
  text.Gauge("ugs_oldest_report_age_seconds",
             "Since the newest report of the instance that is silent the longest.", oldest);
  text.Counter("ugs_expired", "Instances that fell silent: the log's lines Deleting korvane.",
               snapshot.server.expired);
  text.Counter("ugs_never_back",
               "Instances that did not come back after a rebuild: the log has no line for them.",
               snapshot.server.neverBack);
  text.Counter("ugs_lost", "Instances that expired or did not come back, without those that had signed off.",
               snapshot.server.expired + snapshot.server.neverBack - snapshot.server.signedOff);
}

Labels NamesOf(const StatusPeer& peer) {
  return {{"key", peer.key}, {"identity", peer.identity}, {"address", peer.address}};
}

std::int64_t AgeOf(const StatusPeer& peer, std::int64_t now) {
  return std::max<std::int64_t>(0, now - peer.last);
}

// Those overdue, and those lost in the last hour that have not returned: the newest of them.
void AddSilent(MetricsText& text, const StatusSnapshot& snapshot) {
  constexpr std::size_t most = 50;
  constexpr std::int64_t hour = 3600;
  const std::int64_t now = snapshot.server.time;
  std::vector<std::pair<const StatusPeer*, std::string_view>> silent;
  std::set<std::string_view> keys;  // an instance may have been lost twice
  const auto add = [&](const StatusPeer& peer, std::string_view state) {
    if (keys.insert(peer.key).second) silent.emplace_back(&peer, state);
  };
  for (const StatusInstance& instance : snapshot.instances) {
    if (IsOverdue(instance, now)) add(*instance, instance->state);
    keys.insert(instance->key);
  }
  for (const StatusLoss& loss : snapshot.losses) {
    if (loss.returned == 0 && !loss.HasSignedOff() && now - loss.lost < hour) add(loss, "lost");
  }
  std::ranges::stable_sort(silent, std::greater(), [](const auto& row) { return row.first->last; });
  if (silent.size() > most) silent.resize(most);
  text.Begin("ugs_silent_instance_age_seconds", "gauge",
             "Since the newest report of an instance that is late, not back in time, or lost for less than "
             "an hour.");
  for (const auto& [peer, state] : silent) {
    Labels labels = NamesOf(*peer);
    labels.emplace_back("state", state);
    text.Add(AgeOf(*peer, now), labels);
  }
}

void AddInstances(MetricsText& text, const StatusSnapshot& snapshot) {
  text.Begin("ugs_instance_report_age_seconds", "gauge", "Since the instance's newest report.");
  for (const StatusInstance& instance : snapshot.instances) {
    text.Add(AgeOf(*instance, snapshot.server.time), NamesOf(*instance));
  }
  text.Begin("ugs_instance_cameras", "gauge", "The instance's cameras.");
  for (const StatusInstance& instance : snapshot.instances)
    text.Add(instance->camerasCount, NamesOf(*instance));
  text.Begin("ugs_instance_in_use", "gauge", "What the instance uses.");
  for (const StatusInstance& instance : snapshot.instances) {
    for (const auto& [feature, count] : instance->counts) {
      Labels ofFeature = NamesOf(*instance);
      ofFeature.emplace_back("feature", feature);
      text.Add(count, ofFeature);
    }
  }
}

constexpr std::string_view kOpenMetricsType = "application/openmetrics-text";

}  // namespace

const char* ContentTypeOf(MetricsOptions::Form form) {
  return form == MetricsOptions::Form::OpenMetrics
             ? "application/openmetrics-text; version=1.0.0; charset=utf-8"
             : "text/plain; version=0.0.4; charset=utf-8";
}

MetricsOptions::Form FormAccepted(std::string_view accept) {
  return accept.find(kOpenMetricsType) != std::string_view::npos ? MetricsOptions::Form::OpenMetrics
                                                                 : MetricsOptions::Form::Prometheus;
}

std::string MetricsOf(const StatusSnapshot* snapshot, const MetricsOptions& options) {
  MetricsText text(options.form);
  text.Gauge("ugs_up", "1 if the server tells its status.", snapshot == nullptr ? 0 : 1);
  if (snapshot == nullptr) return text.Finish();
  AddServer(text, snapshot->server, options.starts);
  AddErrors(text, *snapshot);
  AddUses(text, *snapshot);
  AddFleet(text, *snapshot);
  if (options.instances != MetricsOptions::Instances::None) AddSilent(text, *snapshot);
  if (options.instances == MetricsOptions::Instances::All) AddInstances(text, *snapshot);
  return text.Finish();
}
