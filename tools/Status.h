// What a server tells through its status socket; docs/status.md describes the members and their units.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "FileDescriptor.h"

// In the order in which they came; those that are 0 are left out.
using StatusCounts = std::vector<std::pair<std::string, std::int64_t>>;

// 0 if `name` is not among them.
std::int64_t CountOf(const StatusCounts& counts, const std::string& name);

struct StatusServer {
  std::string version;
  std::string host;
  std::int64_t time = 0;
  std::int64_t started = 0;
  std::int64_t rebuilt = 0;
  std::int64_t rebuilds = 0;
  bool serving = false;
  std::int64_t reports = 0;
  std::int64_t greetings = 0;
  std::int64_t refused = 0;
  std::int64_t lastReport = 0;
  std::int64_t expired = 0;
  std::int64_t neverBack = 0;
  std::int64_t signedOff = 0;  // of those that expired or never came back
  StatusCounts errors;         // by code
  double reportsPerSecond = 0;
  double reportsPerSecondLimit = 0;
  std::int64_t queue = 0;
  std::int64_t queuePeak = 0;
  std::int64_t queueLimit = 0;
  std::int64_t connections = 0;
  std::int64_t openFiles = 0;
  std::int64_t openFilesLimit = 0;
  std::int64_t repliesLost = 0;
  std::int64_t logWritten = 0;
  std::int64_t logFailed = 0;
  std::int64_t logFailures = 0;
};

// What names an instance, and what it last used.
struct StatusPeer {
  std::string key;
  std::string identity;
  std::string container;
  std::string address;
  StatusCounts counts;
  std::int64_t camerasCount = 0;
  std::int64_t first = 0;
  std::int64_t last = 0;

  bool operator==(const StatusPeer&) const = default;
};

// What is said of an instance that does not grow with the clock.
struct StatusFacts : StatusPeer {
  std::string layout;
  std::vector<std::string> cameras;
  std::int64_t reports = 0;
  double period = 0;
  std::string state;
  std::vector<std::string> flags;

  [[nodiscard]] bool Has(const std::string& flag) const;

  bool operator==(const StatusFacts&) const = default;
};

// One line of a snapshot. Copies share the facts, and so do snapshots of one StatusMemory in which they are
// the same: of thousands of instances few change from one second to the next.
struct StatusInstance {
  std::shared_ptr<const StatusFacts> facts;
  std::int64_t cameraSeconds = 0;

  const StatusFacts& operator*() const { return *facts; }
  const StatusFacts* operator->() const { return facts.get(); }
};

struct StatusLoss : StatusPeer {
  std::int64_t cameraSeconds = 0;
  std::int64_t lost = 0;
  std::string reason;
  std::int64_t returned = 0;

  [[nodiscard]] bool HasSignedOff() const { return reason == "signed_off"; }

  bool operator==(const StatusLoss&) const = default;
};

struct StatusRefusal {
  std::string address;
  std::string code;
  std::int64_t count = 0;
  std::int64_t first = 0;
  std::int64_t last = 0;
  std::string identity;

  bool operator==(const StatusRefusal&) const = default;
};

// The use of one count in an hour.
struct StatusUse {
  std::string feature;
  std::int64_t peak = 0;
  std::int64_t peakTime = 0;
  std::int64_t unitSeconds = 0;

  bool operator==(const StatusUse&) const = default;
};

struct StatusHour {
  std::int64_t hour = 0;
  std::int64_t seen = 0;
  std::vector<StatusUse> uses;

  bool operator==(const StatusHour&) const = default;
};

// All strings are UTF-8, and as peers sent them otherwise: see Shown.
struct StatusSnapshot {
  StatusServer server;
  StatusCounts totals;
  std::int64_t totalInstances = 0;  // that are counted in the totals
  std::vector<StatusInstance> instances;
  std::vector<StatusLoss> losses;
  std::vector<StatusRefusal> refusals;
  std::vector<StatusHour> hours;
};

// There is no status to be had; the text says why, and what to do.
class NoStatus : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// UGS_STATUS, or the service's socket, or the one of the checkout that is the working directory if there is
// no service here.
std::string DefaultStatusSocket();

// The text of the last snapshot and what its instances' lines said: parsing thousands of lines costs more
// than all else, and most stay the same from one second to the next, but for the camera-seconds. The server
// sorts them by key, so that a line is looked for where the last one was found and little further.
class StatusMemory {
 public:
  // An empty text with room for the next snapshot.
  [[nodiscard]] std::string TakeBuffer();

  // `text` is the newest snapshot from now on.
  void BeginSnapshot(std::string text);
  [[nodiscard]] std::string_view Text() const { return now_.text; }

  // What this line of the newest snapshot tells, if the one before it had the same.
  std::optional<StatusInstance> Find(std::string_view line);
  // What it tells otherwise.
  void Add(std::string_view line, std::shared_ptr<const StatusFacts> facts);

 private:
  // A line of a text before and after its camera-seconds.
  struct Line {
    std::string_view head;
    std::string_view tail;
    std::shared_ptr<const StatusFacts> facts;
  };
  struct Snapshot {
    std::string text;
    std::vector<Line> lines;
  };

  Snapshot before_;
  std::size_t next_ = 0;  // line of `before_` to compare with
  Snapshot now_;
};

// One snapshot on its way. Never waits; one thread.
class StatusConnection {
 public:
  // Throws NoStatus if nobody accepts at `path`, or not for this user. `memory` outlives this.
  StatusConnection(const std::string& path, StatusMemory& memory);

  // To be waited for (POLLIN).
  [[nodiscard]] int Descriptor() const { return socket_.Number(); }

  // Takes what is there; the snapshot once it is whole. Throws NoStatus if it is none, or of a later schema.
  [[nodiscard]] std::optional<StatusSnapshot> Receive();

 private:
  const std::string path_;
  const FileDescriptor socket_;
  StatusMemory& memory_;
  std::string text_;
};

// Waits until the snapshot is there. Throws NoStatus, also when it takes longer than 5 s.
StatusSnapshot ReadStatus(const std::string& path);
