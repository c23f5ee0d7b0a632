#include "StatusText.h"

#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <bit>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string_view>
#include <unordered_map>
#include <utility>

#include "KorvaneControllerServer.h"
#include "Logging.h"
#include "ReportLayouts.h"

namespace {

constexpr int kSchema = 1;
constexpr unsigned kReportsPerSecondLimit = 93;  // measured: docs/performance.md
constexpr std::int64_t kNewFor = 120;            // seconds
constexpr std::int64_t kLateGrace = 5;           // seconds beyond two periods
constexpr double kUnknownPeriod = 60;            // seconds after which one report was the last
constexpr std::uint32_t kLargestCount = 1U << 31U;

// The key of the count in each slot; null for the spares.
constexpr auto kKeys = [] {
  std::array<const char*, ugs::CountSlots().size()> keys{};
  for (const ugs::Layout& layout : ugs::kLayouts) {
    for (const ugs::CountField& field : layout.addedCounts) {
      ugs::UsageCounts one;
      one.*field.member = 1;
      const auto slots = std::bit_cast<ugs::CountSlots>(one);
      keys.at(static_cast<std::size_t>(std::ranges::find(slots, 1U) - slots.begin())) = field.key;
    }
  }
  return keys;
}();

// Whose identity or camera stands in more than one line.
class Duplicates {
 public:
  explicit Duplicates(const std::vector<FleetStatus::InstancePointer>& instances) {
    std::size_t cameras = 0;
    for (const auto& instance : instances) cameras += instance->who->cameras.size();
    keysOfIdentity_.reserve(instances.size());
    identityOfCamera_.reserve(cameras);
    for (const auto& instance : instances) {
      const FleetStatus::Who& who = *instance->who;
      if (++keysOfIdentity_[who.identity] > 1) hasTwins_ = true;
      for (const std::string& camera : who.cameras) {
        const auto [owner, isNew] = identityOfCamera_.try_emplace(camera, who.identity);
        if (isNew || owner->second == who.identity) continue;
        owner->second = {};  // an empty identity never has a record, so it can stand for several
        hasSharedCameras_ = true;
      }
    }
  }

  [[nodiscard]] bool SharesIdentity(const FleetStatus::Who& who) const {
    return hasTwins_ && keysOfIdentity_.at(who.identity) > 1;
  }
  [[nodiscard]] bool SharesCamera(const FleetStatus::Who& who) const {
    return hasSharedCameras_ && std::ranges::any_of(who.cameras, [&](const std::string& camera) {
             return !camera.empty() && identityOfCamera_.at(camera).empty();
           });
  }

 private:
  bool hasTwins_ = false;  // usually nobody has, and nothing need be looked up
  bool hasSharedCameras_ = false;
  std::unordered_map<std::string_view, int> keysOfIdentity_;
  std::unordered_map<std::string_view, std::string_view> identityOfCamera_;
};

bool HasHugeCount(const ugs::UsageCounts& counts) {
  return std::ranges::any_of(std::bit_cast<ugs::CountSlots>(counts),
                             [](std::uint32_t count) { return count >= kLargestCount; });
}

const char* StateOf(const FleetStatus::Instance& instance, const FleetStatus::Snapshot& snapshot) {
  const bool hasPeriod = instance.period > 0;
  const double due = hasPeriod ? 2 * instance.period + kLateGrace : kUnknownPeriod;
  const bool isOverdue = static_cast<double>(snapshot.time - instance.last) > due;
  if (isOverdue && instance.HasSignedOff()) return "signed_off";
  if (instance.generation != snapshot.generation) return "not_back";
  return hasPeriod && isOverdue ? "late" : "alive";
}

const char* NameOf(FleetStatus::LossReason reason) {
  switch (reason) {
    case FleetStatus::LossReason::Silent:
      return "silent";
    case FleetStatus::LossReason::NotBack:
      return "not_back";
    case FleetStatus::LossReason::SignedOff:
      return "signed_off";
  }
  return "";
}

class Lines {
 public:
  Lines() { writer_.SetMaxDecimalPlaces(1); }

  // One line: an object with `type`, whose other members `members` writes.
  template <typename Members>
  void Add(const char* type, Members members) {
    writer_.Reset(text_);
    writer_.StartObject();
    Member("type", type);
    members();
    writer_.EndObject();
    text_.Put('\n');
  }

  template <typename Value>
  void Member(const char* name, const Value& value) {
    writer_.Key(name);
    Write(value);
  }
  template <typename Elements>
  void Array(const char* name, Elements elements) {
    writer_.Key(name);
    writer_.StartArray();
    elements();
    writer_.EndArray();
  }
  template <typename Members>
  void Object(const char* name, Members members) {
    writer_.Key(name);
    writer_.StartObject();
    members();
    writer_.EndObject();
  }
  void Counts(const ugs::UsageCounts& counts) {
    const auto slots = std::bit_cast<ugs::CountSlots>(counts);
    Object("counts", [&] {
      for (std::size_t slot = 0; slot < slots.size(); ++slot) {
        if (kKeys[slot] != nullptr && slots[slot] != 0) Member(kKeys[slot], slots[slot]);
      }
    });
  }
  // `seen`: the seconds that were seen until now, or until the instance was lost.
  void Instance(const FleetStatus::Instance& instance, std::uint64_t seen) {
    Member("key", instance.who->key);
    Member("identity", instance.who->identity);
    Member("container", instance.who->container);
    Member("address", instance.address);
    Counts(instance.counts);
    Member("cameras_count", instance.who->allCameras);
    Member("camera_seconds", instance.who->allCameras * (seen - instance.seenBefore));
    Member("first", instance.first);
    Member("last", instance.last);
  }

  void Write(bool value) { writer_.Bool(value); }
  void Write(int value) { writer_.Int(value); }
  void Write(std::int64_t value) { writer_.Int64(value); }
  void Write(std::uint32_t value) { writer_.Uint(value); }
  void Write(std::uint64_t value) { writer_.Uint64(value); }
  void Write(double value) { writer_.Double(value); }
  void Write(const char* value) { writer_.String(value); }
  void Write(std::string_view value) {
    writer_.String(value.data(), static_cast<rapidjson::SizeType>(value.size()));
  }

  [[nodiscard]] std::string Text() const { return {text_.GetString(), text_.GetSize()}; }

 private:
  using Writer = rapidjson::Writer<rapidjson::StringBuffer>;
  rapidjson::StringBuffer text_;
  Writer writer_;
};

void AddServer(Lines& lines, const FleetStatus::Snapshot& snapshot, const ProcessFacts& process) {
  const FleetStatus::Server& server = snapshot.server;
  lines.Add("server", [&] {
    lines.Member("schema", kSchema);
    lines.Member("version", UGSDefs::kVersion);
    lines.Member("host", process.host);
    lines.Member("time", snapshot.time);
    lines.Member("started", server.started);
    lines.Member("rebuilt", server.rebuilt);
    lines.Member("rebuilds", snapshot.generation);
    lines.Member("serving", server.turn.serving);
    lines.Member("reports", server.reports);
    lines.Member("greetings", server.greetings);
    lines.Member("refused", server.refused);
    lines.Member("last_report", server.lastReport);
    lines.Member("expired", server.silent);
    lines.Member("never_back", server.neverBack);
    lines.Member("signed_off", server.signedOff);
    lines.Object("errors", [&] {
      for (const auto& [code, count] : process.errors) lines.Member(code.c_str(), count);
    });
    lines.Member("reports_per_second", server.reportsPerSecond);
    lines.Member("reports_per_second_limit", kReportsPerSecondLimit);
    lines.Member("queue", server.turn.queue);
    lines.Member("queue_peak", server.queuePeak);
    lines.Member("queue_limit", KorvaneControllerServer::kQueueRoom);
    lines.Member("connections", process.connections);
    lines.Member("open_files", process.openFiles);
    lines.Member("open_files_limit", process.openFilesLimit);
    lines.Member("replies_lost", server.repliesLostBefore + server.turn.repliesLost);
    lines.Member("log_written", process.logWritten);
    lines.Member("log_failed", process.logFailed);
    lines.Member("log_failures", process.logFailures);
  });
}

void AddTotals(Lines& lines, const FleetStatus::Snapshot& snapshot) {
  const auto counted = std::ranges::count(snapshot.instances, snapshot.generation,
                                          [](const auto& instance) { return instance->generation; });
  lines.Add("totals", [&] {
    lines.Counts(snapshot.totals);
    lines.Member("instances", counted);
  });
}

void AddInstances(Lines& lines, const FleetStatus::Snapshot& snapshot) {
  const Duplicates duplicates(snapshot.instances);
  for (const auto& instance : snapshot.instances) {
    const FleetStatus::Who& who = *instance->who;
    const std::array flags{
        std::pair("new", snapshot.time - instance->first < kNewFor),
        std::pair("same_identity", duplicates.SharesIdentity(who)),
        std::pair("same_camera", duplicates.SharesCamera(who)),
        std::pair("huge_count", HasHugeCount(instance->counts)),
    };
    lines.Add("instance", [&] {
      lines.Instance(*instance, snapshot.seen);
      lines.Member("layout", instance->layout);
      lines.Array("cameras", [&] {
        for (const std::string& camera : who.cameras) lines.Write(camera);
      });
      lines.Member("reports", instance->reports);
      lines.Member("period", instance->period);
      lines.Member("state", StateOf(*instance, snapshot));
      lines.Array("flags", [&] {
        for (const auto& [name, isSet] : flags) {
          if (isSet) lines.Write(name);
        }
      });
    });
  }
}

void AddLosses(Lines& lines, const FleetStatus::Snapshot& snapshot) {
  for (const FleetStatus::Loss& loss : snapshot.losses) {
    lines.Add("loss", [&] {
      lines.Instance(*loss.instance, loss.seen);
      lines.Member("lost", loss.lost);
      lines.Member("reason", NameOf(loss.reason));
      lines.Member("returned", loss.returned);
    });
  }
}

void AddRefusals(Lines& lines, const FleetStatus::Snapshot& snapshot) {
  using Row = std::pair<const FleetStatus::AddressAndCode, FleetStatus::Refusal>;
  std::vector<const Row*> newestFirst;
  newestFirst.reserve(snapshot.refusals.size());
  for (const Row& row : snapshot.refusals) newestFirst.push_back(&row);
  std::ranges::stable_sort(newestFirst, std::greater(), [](const Row* row) { return row->second.last; });
  for (const Row* row : newestFirst) {
    lines.Add("refusal", [&] {
      lines.Member("address", row->first.first);
      lines.Member("code", row->first.second);
      lines.Member("count", row->second.count);
      lines.Member("first", row->second.first);
      lines.Member("last", row->second.last);
      lines.Member("identity", row->second.identity);
    });
  }
}

void AddHours(Lines& lines, const FleetStatus::Snapshot& snapshot) {
  for (const FleetStatus::Hour& hour : snapshot.hours) {
    lines.Add("hour", [&] {
      lines.Member("hour", hour.start);
      lines.Member("seen", hour.seen);
      lines.Object("features", [&] {
        for (std::size_t slot = 0; slot < kKeys.size(); ++slot) {
          const FleetStatus::Use& use = hour.uses[slot];
          if (kKeys[slot] == nullptr || use.peak == 0) continue;
          lines.Array(kKeys[slot], [&] {
            lines.Write(use.peak);
            lines.Write(use.peakTime);
            lines.Write(use.unitSeconds);
          });
        }
      });
    });
  }
}

// Established ones (state 01), in proc(5)'s table: "   0: 0100007F:2458 0100007F:A1B2 01 ..."
std::size_t ConnectionsTo(std::uint16_t port) {
  constexpr std::size_t addressSize = 13;
  std::ifstream table("/proc/self/net/tcp");
  const std::string wanted = fmt::format(":{:04X}", port);
  std::size_t connections = 0;
  for (std::string line; std::getline(table, line);) {
    const std::size_t local = line.find(": ") + 2;
    if (line.size() < local + 2 * addressSize + 4) continue;  // is no row
    const bool isEstablished = line.compare(local + 2 * addressSize + 2, 2, "01") == 0;
    if (isEstablished && line.compare(local + addressSize - wanted.size(), wanted.size(), wanted) == 0)
      ++connections;
  }
  return connections;
}

}  // namespace

ProcessFacts LookUpProcessFacts() {
  ProcessFacts facts;
  std::array<char, 256> host{};
  if (gethostname(host.data(), host.size() - 1) == 0) facts.host = host.data();
  std::error_code ignored;
  const std::filesystem::directory_iterator files("/proc/self/fd", ignored);
  facts.openFiles = static_cast<std::size_t>(std::distance(files, {}));
  rlimit limit{};
  getrlimit(RLIMIT_NOFILE, &limit);
  facts.openFilesLimit = limit.rlim_cur;
  facts.connections = ConnectionsTo(UGSDefs::kPort);
  const LogState log = CurrentLogState();
  facts.logWritten = log.written;
  facts.logFailed = log.failed;
  facts.logFailures = log.failures;
  facts.errors = CurrentErrorCounts();
  return facts;
}

std::string WriteStatus(const FleetStatus::Snapshot& snapshot, const ProcessFacts& process) {
  Lines lines;
  AddServer(lines, snapshot, process);
  AddTotals(lines, snapshot);
  AddInstances(lines, snapshot);
  AddLosses(lines, snapshot);
  AddRefusals(lines, snapshot);
  AddHours(lines, snapshot);
  lines.Add("end", [] {});
  return lines.Text();
}
