#include "HistorySchema.h"

#include <array>
#include <cstdint>
#include <string>

namespace {

// In the file's header, so that nobody's other database is taken for a history.
constexpr std::int64_t kApplication = 0x75677368;

// Step n leads from schema n to n + 1. A step that was once released never changes. A run is one process of
// the server: an hour in which it was restarted has a row for each, and none of them counts for another.
constexpr std::array kSteps{
    R"(
CREATE TABLE run (id INTEGER PRIMARY KEY, started INTEGER NOT NULL UNIQUE, written INTEGER NOT NULL);
CREATE TABLE feature (id INTEGER PRIMARY KEY, name TEXT NOT NULL UNIQUE);
CREATE TABLE hour (hour INTEGER NOT NULL, run INTEGER NOT NULL, seen INTEGER NOT NULL,
                   PRIMARY KEY (hour, run)) WITHOUT ROWID;
CREATE TABLE feature_hour (hour INTEGER NOT NULL, feature INTEGER NOT NULL, run INTEGER NOT NULL,
                           peak INTEGER NOT NULL, peak_time INTEGER NOT NULL, unit_seconds INTEGER NOT NULL,
                           PRIMARY KEY (hour, feature, run)) WITHOUT ROWID;
CREATE TABLE loss (lost INTEGER NOT NULL, key TEXT NOT NULL, identity TEXT NOT NULL,
                   container TEXT NOT NULL, address TEXT NOT NULL, last INTEGER NOT NULL,
                   reason TEXT NOT NULL, returned INTEGER NOT NULL, PRIMARY KEY (lost, key)) WITHOUT ROWID;
)",
    R"(
CREATE TABLE instance (id INTEGER PRIMARY KEY, key TEXT NOT NULL UNIQUE, identity TEXT NOT NULL,
                       container TEXT NOT NULL, address TEXT NOT NULL, added INTEGER NOT NULL);
CREATE TABLE instance_hour (hour INTEGER NOT NULL, instance INTEGER NOT NULL, spell INTEGER NOT NULL,
                            camera_seconds INTEGER NOT NULL, first INTEGER NOT NULL, last INTEGER NOT NULL,
                            PRIMARY KEY (hour, instance, spell)) WITHOUT ROWID;
CREATE TABLE instance_day (day INTEGER NOT NULL, instance INTEGER NOT NULL, camera_seconds INTEGER NOT NULL,
                           first INTEGER NOT NULL, last INTEGER NOT NULL,
                           PRIMARY KEY (day, instance)) WITHOUT ROWID;
CREATE VIEW instance_use AS
  SELECT day, instance, camera_seconds, first, last FROM instance_day UNION ALL
  SELECT hour - hour % 86400, instance, camera_seconds, first, last FROM instance_hour;
)",
};

constexpr auto kSchema = static_cast<std::int64_t>(kSteps.size());

std::int64_t SchemaOf(Database& database) {
  const std::int64_t schema = database.Number("PRAGMA user_version");
  const std::int64_t application = database.Number("PRAGMA application_id");
  const bool isEmpty = database.Number("SELECT count(*) FROM sqlite_master") == 0;
  if (isEmpty && application == 0) return 0;
  if (application != kApplication) database.Fail("this is another program's database");
  if (schema > kSchema) {
    database.Fail("its schema is " + std::to_string(schema) + ", and this ugs knows " +
                  std::to_string(kSchema) + ": install the ugs that wrote it, or a newer one");
  }
  return schema;
}

}  // namespace

void UpgradeHistory(Database& database) {
  if (SchemaOf(database) == kSchema) return;
  Transaction transaction(database);
  // Anew: another process may have done it meanwhile.
  for (auto step = SchemaOf(database); step < kSchema; ++step) {
    database.Run(kSteps.at(static_cast<std::size_t>(step)));
    database.Run("PRAGMA user_version = " + std::to_string(step + 1));
  }
  database.Run("PRAGMA application_id = " + std::to_string(kApplication));
  transaction.Commit();
}

void CheckHistory(Database& database) {
  const std::int64_t schema = SchemaOf(database);
  if (schema == 0) database.Fail("nothing was written into it yet");
  if (schema < kSchema)
    database.Fail("it is an older ugs's; the next start of ugs page brings it up to date");
}
