#include "StatusChecks.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <functional>
#include <map>
#include <set>
#include <span>
#include <string_view>

#include "Listing.h"
#include "ReportLayouts.h"
#include "Shown.h"
#include "StatusRules.h"

namespace {

constexpr std::int64_t kHour = 3600;
constexpr std::size_t kNamed = 5;  // in one problem; all of them are in the listings
constexpr std::size_t kNameWidth = 40;
constexpr double kNear = 0.8;             // of a limit
constexpr std::int64_t kLogSilence = 60;  // seconds; the server flushes its log every 5 s

std::string Name(const StatusPeer& peer) {
  return Shown(peer.identity, kNameWidth) + " (" + Shown(peer.address, kNameWidth) + ")";
}

std::string WithAge(const StatusPeer& peer, std::int64_t now) {
  return Name(peer) + " " + ShownAge(now - peer.last) + " ago";
}

// "NAME, NAME and M more" for `number` of which the first are named.
std::string Named(const std::vector<std::string>& names, std::size_t number) {
  const std::string more =
      number > names.size() ? " and " + std::to_string(number - names.size()) + " more" : "";
  return Joined(names, ", ") + more;
}

// Adds "N WHAT: NAME, NAME and M more" for those of `rows` that `isMeant` picks, if there are any.
template <typename Row, typename Predicate, typename Describe>
void AddGroup(std::vector<StatusProblem>& problems, const char* kind, const std::string& noun,
              const std::string& what, const std::vector<Row>& rows, Predicate isMeant, Describe describe) {
  std::vector<std::string> names;
  std::size_t number = 0;
  for (const Row& row : rows) {
    if (!isMeant(row)) continue;
    if (++number <= kNamed) names.push_back(describe(row));
  }
  if (number == 0) return;
  problems.push_back(
      {kind, Counted(static_cast<std::int64_t>(number), noun) + " " + what + ": " + Named(names, number)});
}

// Ones that differ in their cameras are different instances to the server.
void AddSameIdentities(std::vector<StatusProblem>& problems, const std::vector<StatusInstance>& instances) {
  std::map<std::string_view, std::int64_t> times;
  for (const StatusInstance& instance : instances) {
    if (instance->Has("same_identity")) ++times[instance->identity];
  }
  if (times.empty()) return;
  std::vector<std::string> names;
  for (const auto& [identity, number] : times) {
    if (names.size() == kNamed) break;
    names.push_back(Shown(identity, kNameWidth) + " is counted " + Counted(number, "time"));
  }
  problems.push_back(
      {"same_identity", Named(names, times.size()) + " (same identity, other cameras or another order)"});
}

void AddInstances(std::vector<StatusProblem>& problems, const StatusSnapshot& snapshot) {
  const std::int64_t now = snapshot.server.time;
  const auto add = [&](const char* kind, const std::string& what, auto isMeant) {
    AddGroup(problems, kind, "instance", what, snapshot.instances, isMeant,
             [&](const StatusInstance& instance) { return WithAge(*instance, now); });
  };
  const auto isOverdue = [&](const char* state) {
    return [&, state](const StatusInstance& instance) {
      return instance->state == state && IsOverdue(instance, now);
    };
  };
  const auto has = [](const char* flag) {
    return [flag](const StatusInstance& instance) {
      return instance->Has(flag);
    };
  };
  add("late", "late; last report", isOverdue("late"));
  add("not_back", "overdue since the rebuild; last report", isOverdue("not_back"));
  add("huge_count", "with a count above 2^31 (a sender's -1), which spoils the sums", has("huge_count"));
  AddSameIdentities(problems, snapshot.instances);
  add("same_camera", "with a camera that another identity has, too", has("same_camera"));
}

// Those of the last hour; who was lost several times is one.
struct RecentLosses {
  std::vector<std::string> namesAway;  // the first of them
  std::size_t away = 0;
  std::size_t returned = 0;
  bool areAll = true;  // false if the server may have forgotten some
};

RecentLosses RecentLossesOf(const StatusSnapshot& snapshot) {
  const std::int64_t now = snapshot.server.time;
  const std::vector<StatusLoss>& losses = snapshot.losses;
  RecentLosses recent;
  std::set<std::string_view> seen;
  for (const StatusLoss& loss : losses) {
    if (now - loss.lost >= kHour || loss.HasSignedOff() || !seen.insert(loss.key).second) continue;
    if (loss.returned != 0) {
      ++recent.returned;
    } else if (++recent.away <= kNamed) {
      recent.namesAway.push_back(Name(loss) + " at " + ShownTime(loss.lost, now));
    }
  }
  recent.areAll = losses.size() < ugs::kLossesKept || now - losses.back().lost >= kHour;
  return recent;
}

// "1 instance", "1000 or more instances"
std::string CountedInstances(std::size_t number, bool areAll) {
  if (areAll) return Counted(static_cast<std::int64_t>(number), "instance");
  return std::to_string(number) + " or more instances";
}

void AddLosses(std::vector<StatusProblem>& problems, const StatusSnapshot& snapshot) {
  const RecentLosses recent = RecentLossesOf(snapshot);
  if (recent.away > 0) {
    std::string text = CountedInstances(recent.away, recent.areAll) +
                       " lost in the last hour and still away: " + Named(recent.namesAway, recent.away);
    if (recent.returned == 1) text += "; 1 other has returned";
    if (recent.returned > 1) text += "; " + std::to_string(recent.returned) + " others have returned";
    problems.push_back({"lost", text});
  } else if (!recent.areAll) {
    problems.push_back({"lost", CountedInstances(recent.returned, false) +
                                    " lost in the last hour, too many to know whether all have returned"});
  }
}

void AddRefusals(std::vector<StatusProblem>& problems, const StatusSnapshot& snapshot) {
  const std::int64_t now = snapshot.server.time;
  std::vector<StatusRefusal> recent = snapshot.refusals;
  std::erase_if(recent, [&](const StatusRefusal& refusal) { return now - refusal.last >= kHour; });
  std::ranges::stable_sort(recent, std::greater(), &StatusRefusal::last);
  const std::size_t named = std::min(recent.size(), kNamed);
  for (const StatusRefusal& refusal : std::span(recent).first(named)) {
    const std::string who = refusal.identity.empty() ? "" : " (" + Shown(refusal.identity, kNameWidth) + ")";
    problems.push_back(
        {"refused", Shown(refusal.address, kNameWidth) + who + " is refused with " +
                        Shown(refusal.code, kNameWidth) + " (" + MeaningOfRefusal(refusal.code) + "), " +
                        Counted(refusal.count, "time") + " since " + ShownTime(refusal.first, now) +
                        ", last " + ShownTime(refusal.last, now)});
  }
  if (recent.size() > named) {
    problems.push_back({"refused", "and " + std::to_string(recent.size() - named) +
                                       " more are refused: \"ugs refusals\" has all of them"});
  }
}

bool IsNear(double value, double limit) {
  return limit > 0 && value >= kNear * limit;
}

std::string OfLimit(std::int64_t value, std::int64_t limit) {
  return std::to_string(value) + " of " + std::to_string(limit);
}

void AddServer(std::vector<StatusProblem>& problems, const StatusServer& server) {
  const auto add = [&](bool isWrong, const char* kind, const std::string& text) {
    if (isWrong) problems.push_back({kind, text});
  };
  const std::int64_t logSilence = server.time - std::max(server.logWritten, server.started);
  const auto toWhole = [](double number) {
    return std::int64_t{std::lround(number)};
  };
  add(!server.serving, "not_serving",
      "the port is not open: nobody can report; the server's log says why (0x0081)");
  add(IsNear(server.reportsPerSecond, server.reportsPerSecondLimit), "near_capacity",
      "near its capacity: " +
          OfLimit(toWhole(server.reportsPerSecond), toWhole(server.reportsPerSecondLimit)) +
          " reports a second");
  add(IsNear(static_cast<double>(server.queue), static_cast<double>(server.queueLimit)), "queue",
      "requests wait: " + OfLimit(server.queue, server.queueLimit) + " in the queue");
  add(IsNear(static_cast<double>(server.openFiles), static_cast<double>(server.openFilesLimit)), "open_files",
      "few descriptors are left: " + OfLimit(server.openFiles, server.openFilesLimit) + " are open");
  // Once it is written again, this is news for an hour, as a loss or a refusal is.
  add(server.logFailed > 0 &&
          (server.time - server.logFailed < kHour || server.logFailed > server.logWritten),
      "log_failures",
      "lines are missing in the log: it could not be written, " + Counted(server.logFailures, "time") +
          " since the start, last " + ShownTime(server.logFailed, server.time) + " (a full disk?)");
  add(server.reportsPerSecond > 0 && logSilence > kLogSilence, "log_silent",
      "reports come, but the log was not written for " + ShownAge(logSilence) +
          " (with SPDLOG_LEVEL=warn it is not)");
}

// None is longer than a column of a table.
std::map<std::string, std::string> MakeMeanings() {
  std::map<std::string, std::string> meanings{
      {"none", "opens to no JSON: AES mode, key size, IV"},
      {"0x0084", "not one frame, or an empty one"},
      {"0x316", "no envelope: something else sends here"},
      {"0x00AE03", "the envelope lacks data1"},
      {"0x00AE04", "the envelope lacks data2"},
      {"0x00AE05", "the envelope lacks data3"},
      {"0x00AE06", "sealed with another server's public key"},
      {"0x476", "no JSON object, or its version is none"},
      {"0x442", "no identity, or no camera URL"},
      {"0xE099", std::string(ugs::kInstanceIdMember) + " is missing"},
      {"0xE126", std::string(ugs::kContainerMember) + " is missing"},
      {"0xE146", std::string(ugs::kCameraUrlsMember) + " is missing"},
      {"0xE140", std::string(ugs::kCameraUrlsMember) + " is no array"},
      {"0xE216", std::string(ugs::kCountsMember) + " is missing"},
      {"0xE210", std::string(ugs::kCountsMember) + " is no object"},
  };
  for (const ugs::Layout& layout : ugs::kLayouts) {
    for (const ugs::CountField& field : layout.addedCounts) {
      meanings.emplace(field.codeWhenMissing, std::string(field.key) + " is missing");
    }
  }
  return meanings;
}

}  // namespace

std::string RemarkOnLosses(const StatusSnapshot& snapshot) {
  const RecentLosses recent = RecentLossesOf(snapshot);
  if (recent.returned == 0 || recent.away > 0 || !recent.areAll) return "";
  const char* const were = recent.returned == 1 ? " was lost in the last hour, and has returned"
                                                : " were lost in the last hour; all have returned";
  return CountedInstances(recent.returned, true) + were;
}

bool IsOverdue(const StatusInstance& instance, std::int64_t now) {
  if (instance->state == "late") return true;
  return instance->state == "not_back" &&
         static_cast<double>(now - instance->last) > ugs::OverdueAfter(instance->period);
}

const std::map<std::string, std::string>& MeaningsOfRefusals() {
  static const std::map<std::string, std::string> meanings = MakeMeanings();
  return meanings;
}

std::string MeaningOfRefusal(const std::string& code) {
  const auto& meanings = MeaningsOfRefusals();
  const auto meaning = meanings.find(code);
  return meaning == meanings.end() ? "see the log texts in operations.md" : meaning->second;
}

std::vector<StatusProblem> ProblemsOf(const StatusSnapshot& snapshot) {
  std::vector<StatusProblem> problems;
  AddServer(problems, snapshot.server);
  AddInstances(problems, snapshot);
  AddLosses(problems, snapshot);
  AddRefusals(problems, snapshot);
  return problems;
}
