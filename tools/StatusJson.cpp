#include "StatusJson.h"

#include <algorithm>
#include <functional>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "StatusChecks.h"

namespace {

void PutPeer(JsonOutput& json, const StatusPeer& peer, std::int64_t cameraSeconds) {
  json.Put("key", peer.key);
  json.Put("identity", peer.identity);
  json.Put("container", peer.container);
  json.Put("address", peer.address);
  json.Put("counts", peer.counts);
  json.Put("cameras_count", peer.camerasCount);
  json.Put("camera_seconds", cameraSeconds);
  json.Put("first", peer.first);
  json.Put("last", peer.last);
}

void PutMembers(JsonOutput& json, const StatusInstance& instance) {
  PutPeer(json, *instance, instance.cameraSeconds);
  json.Put("layout", instance->layout);
  json.Put("cameras", instance->cameras);
  json.Put("reports", instance->reports);
  json.Put("period", instance->period);
  json.Put("state", instance->state);
  json.Put("flags", instance->flags);
}

void PutMembers(JsonOutput& json, const StatusLoss& loss) {
  PutPeer(json, loss, loss.cameraSeconds);
  json.Put("lost", loss.lost);
  json.Put("reason", loss.reason);
  json.Put("returned", loss.returned);
}

void PutMembers(JsonOutput& json, const StatusRefusal& refusal) {
  json.Put("address", refusal.address);
  json.Put("code", refusal.code);
  json.Put("meaning", MeaningOfRefusal(refusal.code));
  json.Put("count", refusal.count);
  json.Put("first", refusal.first);
  json.Put("last", refusal.last);
  json.Put("identity", refusal.identity);
}

void PutMembers(JsonOutput& json, const StatusHour& hour) {
  json.Put("hour", hour.hour);
  json.Put("seen", hour.seen);
  json->Key("features");
  json->StartObject();
  for (const StatusUse& use : hour.uses) {
    json->Key(use.feature.c_str());
    json->StartArray();
    json.Put(use.peak);
    json.Put(use.peakTime);
    json.Put(use.unitSeconds);
    json->EndArray();
  }
  json->EndObject();
}

template <typename Row>
void PutRows(JsonOutput& json, const char* name, const std::vector<Row>& rows) {
  json->Key(name);
  json->StartArray();
  for (const Row& row : rows) {
    json->StartObject();
    PutMembers(json, row);
    json->EndObject();
  }
  json->EndArray();
}

void PutServerAndTotals(JsonOutput& json, const StatusSnapshot& snapshot) {
  json->Key("server");
  json->StartObject();
  PutServer(json, snapshot.server);
  json->EndObject();
  json->Key("totals");
  json->StartObject();
  json.Put("counts", snapshot.totals);
  json.Put("instances", snapshot.totalInstances);
  json->EndObject();
}

template <typename Row>
void PutRowsIfChanged(JsonOutput& json, const char* name, const std::vector<Row>& before,
                      const std::vector<Row>& now) {
  if (before != now) PutRows(json, name, now);
}

std::vector<StatusHour> ChangedHours(const std::vector<StatusHour>& before,
                                     const std::vector<StatusHour>& now) {
  std::vector<StatusHour> changed;
  for (const StatusHour& hour : now) {
    if (std::find(before.begin(), before.end(), hour) == before.end()) changed.push_back(hour);
  }
  return changed;
}

// The instances of `all` whose facts are not among those of `others`. Snapshots that follow each other share
// those that are the same.
std::vector<const StatusInstance*> NotShared(const std::vector<StatusInstance>& all,
                                             const std::vector<StatusInstance>& others) {
  std::vector<const StatusFacts*> known;
  known.reserve(others.size());
  for (const StatusInstance& instance : others) known.push_back(instance.facts.get());
  std::sort(known.begin(), known.end(), std::less<>());
  std::vector<const StatusInstance*> rest;
  for (const StatusInstance& instance : all) {
    if (!std::binary_search(known.begin(), known.end(), instance.facts.get(), std::less<>()))
      rest.push_back(&instance);
  }
  return rest;
}

void PutChangedInstances(JsonOutput& json, const std::vector<StatusInstance>& before,
                         const std::vector<StatusInstance>& now) {
  std::unordered_map<std::string_view, const StatusInstance*> old;
  for (const StatusInstance* instance : NotShared(before, now)) old.emplace((*instance)->key, instance);
  json->Key("changed");
  json->StartArray();
  for (const StatusInstance* instance : NotShared(now, before)) {
    const auto known = old.find((*instance)->key);
    const bool isSame = known != old.end() && **known->second == **instance;
    if (known != old.end()) old.erase(known);
    if (isSame) continue;
    json->StartObject();
    PutMembers(json, *instance);
    json->EndObject();
  }
  json->EndArray();
  json->Key("gone");
  json->StartArray();
  for (const auto& [key, instance] : old) json.Put((*instance)->key);
  json->EndArray();
}

}  // namespace

void PutServer(JsonOutput& json, const StatusServer& server) {
  json.Put("version", server.version);
  json.Put("host", server.host);
  json.Put("time", server.time);
  json.Put("started", server.started);
  json.Put("rebuilt", server.rebuilt);
  json.Put("rebuilds", server.rebuilds);
  json.Put("serving", server.serving);
  json.Put("reports", server.reports);
  json.Put("greetings", server.greetings);
  json.Put("refused", server.refused);
  json.Put("last_report", server.lastReport);
  json.Put("expired", server.expired);
  json.Put("never_back", server.neverBack);
  json.Put("signed_off", server.signedOff);
  json.Put("errors", server.errors);
  json.Put("reports_per_second", server.reportsPerSecond);
  json.Put("reports_per_second_limit", server.reportsPerSecondLimit);
  json.Put("queue", server.queue);
  json.Put("queue_peak", server.queuePeak);
  json.Put("queue_limit", server.queueLimit);
  json.Put("connections", server.connections);
  json.Put("open_files", server.openFiles);
  json.Put("open_files_limit", server.openFilesLimit);
  json.Put("replies_lost", server.repliesLost);
  json.Put("log_written", server.logWritten);
  json.Put("log_failed", server.logFailed);
  json.Put("log_failures", server.logFailures);
}

std::string JsonOf(const StatusSnapshot& snapshot) {
  JsonOutput json;
  json->StartObject();
  PutServerAndTotals(json, snapshot);
  PutRows(json, "instances", snapshot.instances);
  PutRows(json, "losses", snapshot.losses);
  PutRows(json, "refusals", snapshot.refusals);
  PutRows(json, "hours", snapshot.hours);
  json->EndObject();
  return json.Text();
}

std::string InstancesJsonOf(const StatusSnapshot& snapshot) {
  JsonOutput json;
  json->StartObject();
  json.Put("time", snapshot.server.time);
  PutRows(json, "instances", snapshot.instances);
  json->EndObject();
  return json.Text();
}

std::string ChangesJsonOf(const StatusSnapshot& before, const StatusSnapshot& now) {
  JsonOutput json;
  json->StartObject();
  PutServerAndTotals(json, now);
  PutChangedInstances(json, before.instances, now.instances);
  PutRowsIfChanged(json, "losses", before.losses, now.losses);
  PutRowsIfChanged(json, "refusals", before.refusals, now.refusals);
  PutRows(json, "hours", ChangedHours(before.hours, now.hours));
  json->EndObject();
  return json.Text();
}
