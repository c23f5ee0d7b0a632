#include "StatusText.h"

#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <bit>
#include <charconv>
#include <filesystem>
#include <fstream>
#include <functional>
#include <optional>
#include <string_view>
#include <tuple>
#include <unordered_map>
#include <utility>

#include "KorvaneControllerServer.h"
#include "Logging.h"
#include "ReportLayouts.h"
#include "StatusRules.h"

namespace {

constexpr int kSchema = 1;
constexpr unsigned kReportsPerSecondLimit = 93;  // measured: docs/performance.md
constexpr std::int64_t kNewFor = 120;            // seconds

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
                             [](std::uint32_t count) { return count >= ugs::kNegativeFrom; });
}

const char* StateOf(const FleetStatus::Instance& instance, const FleetStatus::Snapshot& snapshot) {
  const bool isOverdue =
      static_cast<double>(snapshot.time - instance.last) > ugs::OverdueAfter(instance.period);
  if (isOverdue && instance.HasSignedOff()) return "signed_off";
  if (instance.generation != snapshot.generation) return "not_back";
  return instance.period > 0 && isOverdue ? "late" : "alive";
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

// `seen`: the seconds that were seen until now, or until the instance was lost.
std::uint64_t CameraSecondsOf(const FleetStatus::Instance& instance, std::uint64_t seen) {
  return instance.who->allCameras * (seen - instance.seenBefore);
}

class Lines {
 public:
  // `size`: about that of the text.
  explicit Lines(std::size_t size) {
    text_.Reserve(size);
    writer_.SetMaxDecimalPlaces(1);
  }

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
  // Returns where its camera-seconds begin and end, in the whole text.
  std::pair<std::size_t, std::size_t> Instance(const FleetStatus::Instance& instance, std::uint64_t seen) {
    Member("key", instance.who->key);
    Member("identity", instance.who->identity);
    Member("container", instance.who->container);
    Member("address", instance.address);
    Counts(instance.counts);
    Member("cameras_count", instance.who->allCameras);
    writer_.Key("camera_seconds");
    const std::size_t begin = Size();
    Write(CameraSecondsOf(instance, seen));
    const std::size_t end = Size();
    Member("first", instance.first);
    Member("last", instance.last);
    return {begin, end};
  }
  // As it is: between two lines only.
  void Raw(std::string_view text) { std::ranges::copy(text, text_.Push(text.size())); }
  // As Write does the value of a member.
  void RawValue(std::uint64_t value) {
    std::array<char, 24> digits{':'};
    const char* const end = std::to_chars(digits.data() + 1, digits.data() + digits.size(), value).ptr;
    Raw({digits.data(), static_cast<std::size_t>(end - digits.data())});
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

  [[nodiscard]] std::size_t Size() const { return text_.GetSize(); }
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
    lines.Member("serving", server.tick.serving);
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
    lines.Member("queue", server.tick.queue);
    lines.Member("queue_peak", server.queuePeak);
    lines.Member("queue_limit", KorvaneControllerServer::kQueueRoom);
    lines.Member("connections", process.connections);
    lines.Member("open_files", process.openFiles);
    lines.Member("open_files_limit", process.openFilesLimit);
    lines.Member("replies_lost", server.repliesLostBefore + server.tick.repliesLost);
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

// The bits of StatusWriter::Line::flags.
constexpr std::array kFlags{"new", "same_identity", "same_camera", "huge_count"};
constexpr unsigned kNew = 1U << 0U;
constexpr unsigned kSameIdentity = 1U << 1U;
constexpr unsigned kSameCamera = 1U << 2U;
constexpr unsigned kHugeCount = 1U << 3U;

// The instances of a snapshot, some of which the last one's text has.
class InstanceLines {
 public:
  using Line = StatusWriter::Line;

  InstanceLines(Lines& lines, const FleetStatus::Snapshot& snapshot, std::string_view lastText,
                const std::vector<Line>& last)
      : lines_(lines), snapshot_(snapshot), lastText_(lastText), last_(last) {
    const auto isSame = [](const Line& line, const FleetStatus::InstancePointer& instance) {
      return line.instance == instance || line.instance->who == instance->who;
    };
    if (!std::ranges::equal(last_, snapshot_.instances, isSame)) duplicates_.emplace(snapshot_.instances);
  }

  std::vector<Line> Add() {
    std::vector<Line> written;
    written.reserve(snapshot_.instances.size());
    auto known = last_.begin();
    for (const auto& instance : snapshot_.instances) {
      while (known != last_.end() && known->instance != instance &&
             known->instance->who->key < instance->who->key) {
        ++known;
      }
      written.push_back(AddOne(instance, known == last_.end() ? nullptr : &*known));
      if (known != last_.end() && known->instance == instance) ++known;
    }
    return written;
  }

 private:
  // `known`: of this instance, or of one that follows.
  Line AddOne(const FleetStatus::InstancePointer& instance, const Line* known) {
    Line line{instance, StateOf(*instance, snapshot_), FlagsOf(*instance, known)};
    line.begin = lines_.Size();
    if (known != nullptr && known->instance == instance && known->state == line.state &&
        known->flags == line.flags) {
      Copy(*known, line);
    } else {
      Write(line);
    }
    line.end = lines_.Size();
    return line;
  }

  [[nodiscard]] unsigned FlagsOf(const FleetStatus::Instance& instance, const Line* known) const {
    const FleetStatus::Who& who = *instance.who;
    unsigned flags = 0;
    if (snapshot_.time - instance.first < kNewFor) flags |= kNew;
    if (HasHugeCount(instance.counts)) flags |= kHugeCount;
    if (!duplicates_) return flags | (known->flags & (kSameIdentity | kSameCamera));
    if (duplicates_->SharesIdentity(who)) flags |= kSameIdentity;
    if (duplicates_->SharesCamera(who)) flags |= kSameCamera;
    return flags;
  }

  void Copy(const Line& known, Line& line) {
    const auto part = [&](std::size_t begin, std::size_t end) {
      return lastText_.substr(begin, end - begin);
    };
    lines_.Raw(part(known.begin, known.cameraSeconds));
    line.cameraSeconds = lines_.Size();
    lines_.RawValue(CameraSecondsOf(*line.instance, snapshot_.seen));
    line.rest = lines_.Size();
    lines_.Raw(part(known.rest, known.end));
  }

  void Write(Line& line) {
    const FleetStatus::Instance& instance = *line.instance;
    lines_.Add("instance", [&] {
      std::tie(line.cameraSeconds, line.rest) = lines_.Instance(instance, snapshot_.seen);
      lines_.Member("layout", instance.layout);
      lines_.Array("cameras", [&] {
        for (const std::string& camera : instance.who->cameras) lines_.Write(camera);
      });
      lines_.Member("reports", instance.reports);
      lines_.Member("period", instance.period);
      lines_.Member("state", line.state);
      lines_.Array("flags", [&] {
        for (std::size_t flag = 0; flag < kFlags.size(); ++flag) {
          if ((line.flags >> flag & 1U) != 0) lines_.Write(kFlags[flag]);
        }
      });
    });
  }

  Lines& lines_;
  const FleetStatus::Snapshot& snapshot_;
  const std::string_view lastText_;
  const std::vector<Line>& last_;
  std::optional<Duplicates> duplicates_;  // not if they are the last one's: then each line is known
};

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

ProcessFacts ProcessWatch::LookUp() {
  const auto now = std::chrono::steady_clock::now();
  if (openFiles_ < kMany || now - counted_ > kManyLast) {
    std::error_code ignored;
    const std::filesystem::directory_iterator files("/proc/self/fd", ignored);
    openFiles_ = static_cast<std::size_t>(std::distance(files, {}));
    connections_ = ConnectionsTo(UGSDefs::kPort);
    counted_ = now;
  }
  ProcessFacts facts;
  std::array<char, 256> host{};
  if (gethostname(host.data(), host.size() - 1) == 0) facts.host = host.data();
  facts.openFiles = openFiles_;
  rlimit limit{};
  getrlimit(RLIMIT_NOFILE, &limit);
  facts.openFilesLimit = limit.rlim_cur;
  facts.connections = connections_;
  const LogState log = CurrentLogState();
  facts.logWritten = log.written;
  facts.logFailed = log.failed;
  facts.logFailures = log.failures;
  facts.errors = CurrentErrorCounts();
  return facts;
}

std::shared_ptr<const std::string> StatusWriter::Write(const FleetStatus::Snapshot& snapshot,
                                                       const ProcessFacts& process) {
  Lines lines(text_->size());
  AddServer(lines, snapshot, process);
  AddTotals(lines, snapshot);
  lines_ = InstanceLines(lines, snapshot, *text_, lines_).Add();
  AddLosses(lines, snapshot);
  AddRefusals(lines, snapshot);
  AddHours(lines, snapshot);
  lines.Add("end", [] {});
  text_ = std::make_shared<const std::string>(lines.Text());
  return text_;
}

std::function<std::shared_ptr<const std::string>()> SnapshotsOf(FleetStatus& status) {
  return [&status, process = ProcessWatch(), writer = StatusWriter()]() mutable {
    return writer.Write(status.TakeSnapshot(), process.LookUp());
  };
}
