#pragma once

#include <array>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "Mutex.h"
#include "UGSDefs.h"
#include "UGSRequest.h"
#include "UsageCounts.h"

// What an operator asks about and the totals cannot tell: which instances report, which fell silent, who is
// refused, and what was used in each of the last 48 hours. It outlives the intake servers that feed it, so
// that a rebuild makes nobody disappear.
//
// Nothing that is counted depends on it. Thread-safe: one mutex, a leaf; the registry holds its own while it
// tells of a change, so that both change in one step. Whoever takes a snapshot has a second one, held first.
//
// Times are seconds since 1970-01-01 UTC, of the registry's clock; 0 is never.
class FleetStatus {
 public:
  // Who an instance is. Strings are as the peer sent them, cut to 512 bytes; cameras without their passwords.
  struct Who {
    std::string key;  // UsageRecords::InstanceKey
    std::string identity;
    std::string container;
    std::vector<std::string> cameras;  // the first 256
    std::size_t allCameras = 0;
  };

  // An instance at its newest report.
  struct Instance {
    std::shared_ptr<const Who> who;
    std::string address;
    const char* layout = "";
    ugs::UsageCounts counts;
    std::int64_t first = 0;
    std::int64_t last = 0;
    std::uint64_t seenBefore = 0;  // seconds that were seen before its first report
    std::uint64_t reports = 0;
    double period = 0;             // seconds between reports, a running mean; 0 before the second report
    std::uint32_t generation = 0;  // of the registry that counted it

    // A client's last report has nothing in use, so that the totals fall at once.
    [[nodiscard]] bool HasSignedOff() const { return counts == ugs::UsageCounts{}; }
  };
  using InstancePointer = std::shared_ptr<const Instance>;

  enum class LossReason { Silent, NotBack, SignedOff };
  struct Loss {
    InstancePointer instance;
    std::int64_t lost = 0;
    std::uint64_t seen = 0;  // seconds that were seen until then
    LossReason reason = LossReason::Silent;
    std::int64_t returned = 0;
  };

  struct Refusal {
    std::uint64_t count = 0;
    std::int64_t first = 0;
    std::int64_t last = 0;
    std::string identity;  // the newest that could be read
  };
  using AddressAndCode = std::pair<std::string, std::string>;

  struct Use {
    std::uint64_t peak = 0;
    std::int64_t peakTime = 0;
    std::uint64_t unitSeconds = 0;
  };
  struct Hour {
    std::int64_t start = 0;
    std::int64_t seen = 0;  // seconds
    std::array<Use, ugs::CountSlots().size()> uses{};
  };

  // What the intake knows at the end of a tick.
  struct Tick {
    std::size_t queue = 0;
    std::uint64_t repliesLost = 0;  // since the last rebuild
    bool serving = false;
  };

  struct Server {
    std::int64_t started = 0;
    std::int64_t rebuilt = 0;
    std::int64_t lastReport = 0;
    std::uint64_t reports = 0;
    std::uint64_t greetings = 0;
    std::uint64_t refused = 0;
    std::uint64_t silent = 0;  // losses: of those that the registry knew, and of those that it did not
    std::uint64_t neverBack = 0;
    std::uint64_t signedOff = 0;  // of both
    double reportsPerSecond = 0;
    std::size_t queuePeak = 0;
    std::uint64_t repliesLostBefore = 0;  // before the last rebuild
    Tick tick;
  };

  // A consistent picture.
  struct Snapshot {
    std::int64_t time = 0;
    std::uint32_t generation = 0;  // instances of an older one are not back yet
    std::uint64_t seen = 0;        // seconds that were seen since the start: the sum of the hours'
    Server server;
    ugs::UsageCounts totals;                 // of the instances that are back
    std::vector<InstancePointer> instances;  // by key
    std::deque<Loss> losses;                 // newest first
    std::map<AddressAndCode, Refusal> refusals;
    std::deque<Hour> hours;  // newest first
  };

  // The gist of it, for the one line that a service manager shows.
  struct Summary {
    std::size_t instances = 0;  // those not back yet included
    std::uint64_t cameras = 0;
    std::int64_t lastReport = 0;
    std::int64_t time = 0;
  };

  FleetStatus();

  // The registry, with its mutex held.
  void Stored(const std::string& key, const UGSRequest::RequestData& request) UGS_EXCLUDES(mutex_);
  void Erased(const std::string& key) UGS_EXCLUDES(mutex_);

  // The intake thread. A request begins, shows in passing what it is, and ends with its answer.
  void BeginRequest(std::string address) UGS_EXCLUDES(mutex_);
  void ReadDocument(const char* layout, std::string_view identity) UGS_EXCLUDES(mutex_);
  void EndRequest(std::int32_t reply) UGS_EXCLUDES(mutex_);
  void EndTick(const Tick& tick) UGS_EXCLUDES(mutex_);

  // The transport's thread: `address` sent what is no request.
  void RefuseMalformed(const std::string& address) UGS_EXCLUDES(mutex_);

  // Main thread: the registry begins anew, and whoever it knew has to come back.
  void Rebuilt() UGS_EXCLUDES(mutex_);

  // What has not changed since the last snapshot comes from there: to copy ten thousand pointers would hold
  // up the intake for milliseconds, most of them for memory that no cache has.
  [[nodiscard]] Snapshot TakeSnapshot() UGS_EXCLUDES(mutex_);
  [[nodiscard]] Summary TakeSummary() const UGS_EXCLUDES(mutex_);

 private:
  // The request in progress.
  struct Request {
    std::string address;
    const char* layout = "";
    std::string identity;
  };
  using Rows = std::map<std::string, InstancePointer, std::less<>>;
  using Totals = std::array<std::uint64_t, ugs::CountSlots().size()>;

  void Refuse(std::string address, const std::string& code, const std::string& identity, std::int64_t now)
      UGS_REQUIRES(mutex_);
  void Lose(Rows::iterator row, LossReason reason, std::int64_t now) UGS_REQUIRES(mutex_);
  void LoseThoseNotBack(std::int64_t now) UGS_REQUIRES(mutex_);
  void ChangeUse(const ugs::UsageCounts* before, const ugs::UsageCounts* after, std::int64_t now)
      UGS_REQUIRES(mutex_);
  void AdvanceTo(std::int64_t now) UGS_REQUIRES(mutex_);
  Hour& HourOf(std::int64_t time) UGS_REQUIRES(mutex_);
  [[nodiscard]] double ReportsPerSecond(std::int64_t now) const UGS_REQUIRES(mutex_);
  void NoteChange(const std::string& key, const InstancePointer& instance) UGS_REQUIRES(mutex_);
  [[nodiscard]] bool TakeChanges(Snapshot& snapshot, Rows& changes) UGS_EXCLUDES(mutex_);
  void CopyAll() UGS_REQUIRES(snapshotMutex_) UGS_EXCLUDES(mutex_);
  [[nodiscard]] bool CopySome() UGS_REQUIRES(snapshotMutex_) UGS_EXCLUDES(mutex_);
  void Apply(const Rows& changes) UGS_REQUIRES(snapshotMutex_);

  ugs::Mutex snapshotMutex_;
  std::vector<InstancePointer> known_ UGS_GUARDED_BY(snapshotMutex_);  // the last snapshot's

  mutable ugs::Mutex mutex_;
  Rows changes_ UGS_GUARDED_BY(mutex_);  // since the last snapshot: null if the instance was lost
  bool keepsChanges_ UGS_GUARDED_BY(mutex_) = false;  // not if they are too many
  Request request_ UGS_GUARDED_BY(mutex_);
  Server server_ UGS_GUARDED_BY(mutex_);
  Rows rows_ UGS_GUARDED_BY(mutex_);
  std::uint32_t generation_ UGS_GUARDED_BY(mutex_) = 0;
  std::size_t notBack_ UGS_GUARDED_BY(mutex_) = 0;  // rows of older generations
  ugs::UsageCounts totals_ UGS_GUARDED_BY(mutex_);  // of the rows of this generation
  std::deque<Loss> losses_ UGS_GUARDED_BY(mutex_);
  std::map<AddressAndCode, Refusal> refusals_ UGS_GUARDED_BY(mutex_);
  std::map<std::string, int, std::less<>> refusedAddresses_ UGS_GUARDED_BY(mutex_);

  Totals inUse_ UGS_GUARDED_BY(mutex_){};             // of all rows
  std::uint64_t cameras_ UGS_GUARDED_BY(mutex_) = 0;  // of all rows: the URLs
  std::deque<Hour> hours_ UGS_GUARDED_BY(mutex_);     // newest first
  std::int64_t advancedTo_ UGS_GUARDED_BY(mutex_) = 0;
  std::uint64_t seen_ UGS_GUARDED_BY(mutex_) = 0;
  struct Second {
    std::int64_t second = 0;
    std::uint32_t reports = 0;
  };
  std::array<Second, 60> seconds_ UGS_GUARDED_BY(mutex_){};
};
