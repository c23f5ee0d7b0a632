#include "HistoryStore.h"

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <optional>

#include "HistoryHours.h"
#include "HistorySchema.h"
#include "StatusListings.h"

namespace {

// Twice the largest fleet that one server carries. Peers with the public key may make up others.
constexpr std::int64_t kNewInstancesPerDay = 20'000;
constexpr std::int64_t kLossesPerDay = 20'000;

constexpr std::chrono::seconds kWriterWaits(5);

// Hours of an instance are kept for so long after their day, which covers the server's 48 hours.
constexpr std::int64_t kOpenDays = 2 * kSecondsPerDay;

// The figures of a snapshot may be some seconds older than its time.
constexpr std::int64_t kLag = 60;

// Writes the hours of one instance after the other.
class InstanceWriter {
 public:
  InstanceWriter(Database& database, std::int64_t time) : database_(database), time_(time) {}

  void Keep(const StatusPeer& peer, const std::vector<InstanceHour>& hours) {
    if (hours.empty()) return;
    const std::optional<std::int64_t> instance = NumberOf(peer);
    if (!instance) return;
    for (const InstanceHour& hour : hours) {
      hour_.With(hour.hour, *instance, peer.first, hour.cameraSeconds, hour.first, hour.last).Run();
    }
  }

 private:
  // The one of its row, which is made if there is room for it.
  std::optional<std::int64_t> NumberOf(const StatusPeer& peer) {
    if (find_.With(peer.key).Step()) {
      const std::int64_t number = find_.Number(0);
      change_.With(peer.container, peer.address, number).Run();
      return number;
    }
    if (!added_) {
      added_ =
          database_.Number("SELECT count(*) FROM instance WHERE added >= " + std::to_string(DayOf(time_)));
    }
    if (*added_ >= kNewInstancesPerDay) return std::nullopt;
    ++*added_;
    add_.With(peer.key, peer.identity, peer.container, peer.address, time_).Run();
    return sqlite3_last_insert_rowid(database_.Handle());
  }

  Database& database_;
  const std::int64_t time_;
  std::optional<std::int64_t> added_;  // instances of this day
  Statement find_{database_, "SELECT id FROM instance WHERE key = ?"};
  Statement change_{database_,
                    "UPDATE instance SET container = ?1, address = ?2 WHERE id = ?3 AND "
                    "(container <> ?1 OR address <> ?2)"};
  Statement add_{database_,
                 "INSERT INTO instance (key, identity, container, address, added) VALUES (?, ?, ?, ?, ?)"};
  Statement hour_{database_,
                  "INSERT INTO instance_hour VALUES (?, ?, ?, ?, ?, ?) "
                  "ON CONFLICT (hour, instance, spell) DO UPDATE SET "
                  "camera_seconds = max(camera_seconds, excluded.camera_seconds), "
                  "first = min(first, excluded.first), last = max(last, excluded.last)"};
};

}  // namespace

std::string DefaultHistory() {
  constexpr const char* kOfService = "/var/lib/korvaneugs/history.db";
  constexpr const char* kOfCheckout = "build/history.db";
  const char* const set = std::getenv("UGS_HISTORY");
  if (set != nullptr && *set != '\0') return set;
  // The service's directory may be closed to this user, who then should hear about that.
  std::error_code error;
  const bool hasService =
      std::filesystem::status(kOfService, error).type() != std::filesystem::file_type::not_found;
  return !hasService && std::filesystem::exists(kOfCheckout, error) ? kOfCheckout : kOfService;
}

// SQLite's usual journal. Its other mode, the write-ahead log, would make readers need write access.
HistoryStore::HistoryStore(const std::string& path) : database_(path, Database::Mode::Write, kWriterWaits) {
  UpgradeHistory(database_);
}

void HistoryStore::Keep(const StatusSnapshot& snapshot, const std::vector<StatusLoss>& gone) {
  Transaction transaction(database_);
  const Run run = Continue(snapshot.server);
  KeepHours(snapshot.hours, run);
  for (const auto* losses : {&gone, &snapshot.losses}) KeepLosses(*losses, snapshot.server.time, run);
  KeepInstances(snapshot, gone, run);
  CloseDays(snapshot.server.time);
  transaction.Commit();
}

HistoryStore::Run HistoryStore::Continue(const StatusServer& server) {
  Statement find(database_, "SELECT id, written FROM run WHERE started = ?");
  Run run;
  // The server's clock may have been set back since.
  if (find.With(server.started).Step()) {
    run = {find.Number(0), HourOf(std::min(find.Number(1), server.time) - kLag)};
  }
  Statement(database_,
            "INSERT INTO run (started, written) VALUES (?, ?) "
            "ON CONFLICT (started) DO UPDATE SET written = excluded.written")
      .With(server.started, server.time)
      .Run();
  if (run.id == 0) run.id = sqlite3_last_insert_rowid(database_.Handle());
  return run;
}

void HistoryStore::KeepHours(const std::vector<StatusHour>& hours, const Run& run) {
  // All of them first, so that they are numbered in their usual order.
  Statement name(database_, "INSERT OR IGNORE INTO feature (name) VALUES (?)");
  for (const std::string& feature : FeatureNames()) name.With(feature).Run();
  Statement seen(database_,
                 "INSERT INTO hour VALUES (?, ?, ?) "
                 "ON CONFLICT (hour, run) DO UPDATE SET seen = max(seen, excluded.seen)");
  Statement keep(database_,
                 "INSERT INTO feature_hour SELECT ?, id, ?, ?, ?, ? FROM feature WHERE name = ? "
                 "ON CONFLICT (hour, feature, run) DO UPDATE SET "
                 "peak_time = iif(excluded.peak > peak, excluded.peak_time, peak_time), "
                 "peak = max(peak, excluded.peak), "
                 "unit_seconds = max(unit_seconds, excluded.unit_seconds)");
  for (const StatusHour& hour : hours) {
    if (hour.hour < run.since) continue;
    seen.With(hour.hour, run.id, hour.seen).Run();
    for (const StatusUse& use : hour.uses) {
      name.With(use.feature).Run();
      keep.With(hour.hour, run.id, use.peak, use.peakTime, use.unitSeconds, use.feature).Run();
    }
  }
}

void HistoryStore::KeepLosses(const std::vector<StatusLoss>& losses, std::int64_t time, const Run& run) {
  Statement find(database_, "SELECT 1 FROM loss WHERE lost = ? AND key = ?");
  Statement change(database_, "UPDATE loss SET returned = ?1 WHERE lost = ?2 AND key = ?3 AND returned < ?1");
  Statement add(database_, "INSERT INTO loss VALUES (?, ?, ?, ?, ?, ?, ?, ?)");
  std::int64_t room = kLossesPerDay - database_.Number("SELECT count(*) FROM loss WHERE lost >= " +
                                                       std::to_string(DayOf(time)));
  for (const StatusLoss& loss : losses) {
    if (find.With(loss.lost, loss.key).Step()) {
      change.With(loss.returned, loss.lost, loss.key).Run();
    } else if (loss.lost >= run.since && room-- > 0) {  // one that is older was forgotten on purpose
      add.With(loss.lost, loss.key, loss.identity, loss.container, loss.address, loss.last, loss.reason,
               loss.returned)
          .Run();
    }
  }
}

void HistoryStore::KeepInstances(const StatusSnapshot& snapshot, const std::vector<StatusLoss>& gone,
                                 const Run& run) {
  SeenHours seen;
  for (const StatusHour& hour : snapshot.hours) seen.emplace(hour.hour, hour.seen);
  InstanceWriter writer(database_, snapshot.server.time);
  for (const auto* losses : {&gone, &snapshot.losses}) {
    for (const StatusLoss& loss : *losses)
      writer.Keep(loss, HoursOf(loss, loss.cameraSeconds, loss.lost, seen, run.since));
  }
  for (const StatusInstance& instance : snapshot.instances) {
    writer.Keep(*instance, HoursOf(*instance, instance.cameraSeconds, snapshot.server.time, seen, run.since));
  }
}

// Hours that will not change any more become days.
void HistoryStore::CloseDays(std::int64_t time) {
  const std::string closed = " FROM instance_hour WHERE hour < " + std::to_string(DayOf(time) - kOpenDays);
  if (database_.Number("SELECT EXISTS (SELECT 1" + closed + ")") == 0) return;
  database_.Run(
      "INSERT INTO instance_day SELECT hour - hour % 86400, instance, sum(camera_seconds), min(first), "
      "max(last)" +
      closed +
      " GROUP BY 1, 2 ON CONFLICT (day, instance) DO UPDATE SET "
      "camera_seconds = camera_seconds + excluded.camera_seconds, first = min(first, excluded.first), "
      "last = max(last, excluded.last)");
  database_.Run("DELETE" + closed);
}

void HistoryStore::Forget(std::int64_t time) {
  const std::string before = " < " + std::to_string(time) + ";";
  Transaction transaction(database_);
  database_.Run("DELETE FROM hour WHERE hour" + before + "DELETE FROM feature_hour WHERE hour" + before +
                "DELETE FROM loss WHERE lost" + before + "DELETE FROM instance_hour WHERE hour" + before +
                "DELETE FROM instance_day WHERE day" + before + "DELETE FROM run WHERE written" + before +
                "DELETE FROM instance WHERE id NOT IN (SELECT instance FROM instance_use);");
  transaction.Commit();
  database_.Run("VACUUM");
}
