#include "StatusCommands.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <iostream>
#include <stdexcept>

#include "JsonOutput.h"
#include "Listing.h"
#include "Nearest.h"
#include "Shown.h"
#include "StatusJson.h"
#include "StatusListings.h"
#include "StatusRules.h"

namespace {

template <typename Predicate>
std::int64_t NumberOf(const StatusSnapshot& snapshot, Predicate isMeant) {
  return std::count_if(snapshot.instances.begin(), snapshot.instances.end(), isMeant);
}

std::int64_t NumberIn(const StatusSnapshot& snapshot, const char* state) {
  return NumberOf(snapshot, [&](const StatusInstance& instance) { return instance->state == state; });
}

std::int64_t CamerasOf(const StatusSnapshot& snapshot) {
  std::int64_t cameras = 0;
  for (const StatusInstance& instance : snapshot.instances) cameras += instance->camerasCount;
  return cameras;
}

std::string InstancesLine(const StatusSnapshot& snapshot) {
  const std::int64_t fresh =
      NumberOf(snapshot, [](const StatusInstance& instance) { return instance->Has("new"); });
  const std::int64_t signedOff = NumberIn(snapshot, "signed_off");
  return fmt::format("{} ({} alive, {} late, {} not back{}; {} new), {}",
                     Counted(std::ssize(snapshot.instances), "instance"), NumberIn(snapshot, "alive"),
                     NumberIn(snapshot, "late"), NumberIn(snapshot, "not_back"),
                     signedOff > 0 ? fmt::format(", {} signed off", signedOff) : "", fresh,
                     Counted(CamerasOf(snapshot), "camera"));
}

std::string LoadLine(const StatusServer& server) {
  return fmt::format("{:.1f} of {:.0f} reports/s; queue {} (peak {}) of {}; {}; {} of {} open files",
                     server.reportsPerSecond, server.reportsPerSecondLimit, server.queue, server.queuePeak,
                     server.queueLimit, Counted(server.connections, "connection"), server.openFiles,
                     server.openFilesLimit);
}

std::string CountersLine(const StatusServer& server) {
  return fmt::format("{}, {} refused, {}, {} replies lost; rebuilt {}, log written {}",
                     Counted(server.reports, "report"), server.refused, Counted(server.greetings, "greeting"),
                     server.repliesLost, ShownTime(server.rebuilt, server.time),
                     ShownTime(server.logWritten, server.time));
}

void PrintProblems(const std::vector<StatusProblem>& problems) {
  std::cout << Verdict(problems) << (problems.empty() ? "\n" : ":\n");
  for (const StatusProblem& problem : problems) std::cout << "- " << problem.text << "\n";
}

void PrintStatusJson(const StatusSnapshot& snapshot, const std::vector<StatusProblem>& problems) {
  const StatusServer& server = snapshot.server;
  JsonOutput json;
  json->StartObject();
  json.Put("well", problems.empty());
  json->Key("problems");
  json->StartArray();
  for (const StatusProblem& problem : problems) {
    json->StartObject();
    json.Put("kind", problem.kind);
    json.Put("text", problem.text);
    json->EndObject();
  }
  json->EndArray();
  PutServer(json, server);
  json.Put("instances", static_cast<std::int64_t>(snapshot.instances.size()));
  json.Put("alive", NumberIn(snapshot, "alive"));
  json.Put("late", NumberIn(snapshot, "late"));
  json.Put("not_back", NumberIn(snapshot, "not_back"));
  json.Put("signed_off", NumberIn(snapshot, "signed_off"));
  json.Put("cameras", CamerasOf(snapshot));
  json.Put("totals", snapshot.totals);
  json->EndObject();
  std::cout << json.Text();
}

void CheckFeature(const std::string& option, const std::string& feature) {
  std::vector<std::string> names = FeatureNames();
  if (std::find(names.begin(), names.end(), feature) != names.end()) return;
  throw std::invalid_argument(option + ": there is no count \"" + feature + "\"; did you mean " +
                              ugs::Nearest(feature, names) + "?");
}

void KeepUsers(std::vector<StatusInstance>& instances, const std::string& feature) {
  std::erase_if(instances,
                [&](const StatusInstance& instance) { return CountOf(instance->counts, feature) == 0; });
}

void PrintTable(const Listing& listing, std::int64_t now, const char* whenEmpty) {
  if (listing.rows.empty()) {
    std::cout << whenEmpty << "\n";
    return;
  }
  for (const std::string& line : TableOf(listing, now)) std::cout << line << "\n";
}

// `extra` adds members to the object.
template <typename Extra>
void PrintListing(const Listing& listing, const StatusOptions& options, const std::string& name,
                  std::int64_t now, const char* whenEmpty, Extra extra) {
  if (options.csv) {
    std::cout << CsvOf(listing);
  } else if (options.json) {
    JsonOutput json;
    json->StartObject();
    json.Put("time", now);
    json.Put(name, listing);
    extra(json);
    json->EndObject();
    std::cout << json.Text();
  } else {
    PrintTable(listing, now, whenEmpty);
  }
}

void NoExtra(const JsonOutput& /*json*/) {}

}  // namespace

std::string Verdict(const std::vector<StatusProblem>& problems) {
  if (problems.empty()) return "All is well";
  return problems.size() == 1 ? "1 thing is wrong" : std::to_string(problems.size()) + " things are wrong";
}

std::vector<std::string> SummaryOf(const StatusSnapshot& snapshot) {
  const StatusServer& server = snapshot.server;
  return {
      Shown("KorvaneUGS " + server.version + " on " + server.host) + ", up " +
          ShownAge(server.time - server.started) + (server.serving ? "" : ", port not open"),
      InstancesLine(snapshot),
      LoadLine(server),
      CountersLine(server),
      "in use: " + (snapshot.totals.empty() ? "nothing" : Shown(ShownCounts(snapshot.totals))),
  };
}

bool ShowStatus(const StatusOptions& options) {
  const StatusSnapshot snapshot = ReadStatus(options.socket);
  const std::vector<StatusProblem> problems = ProblemsOf(snapshot);
  if (options.json) {
    PrintStatusJson(snapshot, problems);
  } else {
    PrintProblems(problems);
    if (const std::string remark = RemarkOnLosses(snapshot); !remark.empty()) std::cout << remark << "\n";
    for (const std::string& line : SummaryOf(snapshot)) std::cout << line << "\n";
  }
  return problems.empty();
}

void ShowInstances(const StatusOptions& options) {
  const std::string& feature = options.feature;
  if (!feature.empty()) CheckFeature("--feature", feature);
  if (options.sort != "age" && options.sort != "identity" && options.sort != "cameras") {
    CheckFeature("--sort", options.sort);
  }
  StatusSnapshot snapshot = ReadStatus(options.socket);
  const std::int64_t now = snapshot.server.time;
  std::vector<StatusInstance>& instances = snapshot.instances;
  if (!feature.empty()) KeepUsers(instances, feature);
  SortInstances(instances, options.sort);
  std::int64_t sum = 0;
  for (const StatusInstance& instance : instances) sum += CountOf(instance->counts, feature);
  PrintListing(ListInstances(instances, now, feature), options, "instances", now, "no instances",
               [&](JsonOutput& json) {
                 if (!feature.empty()) json.Put("sum", sum);
               });
  if (!feature.empty() && !options.json && !options.csv) {
    std::cout << fmt::format("{} in use: {}, by {}\n", feature, sum,
                             Counted(std::ssize(instances), "instance"));
  }
}

void ShowLosses(const StatusOptions& options) {
  const StatusSnapshot snapshot = ReadStatus(options.socket);
  const StatusServer& server = snapshot.server;
  PrintListing(ListLosses(snapshot.losses), options, "losses", server.time,
               "no instance was lost since the server's start", NoExtra);
  if (snapshot.losses.size() >= ugs::kLossesKept && !options.json && !options.csv) {
    std::cout << fmt::format(
        "older losses are not kept; {} were lost since the start: {} silent, {} not back\n",
        Counted(server.expired + server.neverBack, "instance"), server.expired, server.neverBack);
  }
}

void ShowRefusals(const StatusOptions& options) {
  const StatusSnapshot snapshot = ReadStatus(options.socket);
  PrintListing(ListRefusals(snapshot.refusals), options, "refusals", snapshot.server.time,
               "no report was refused since the server's start", NoExtra);
}
