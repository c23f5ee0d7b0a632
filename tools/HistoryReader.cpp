#include "HistoryReader.h"

#include <algorithm>
#include <cstddef>

#include "HistorySchema.h"

namespace {

constexpr std::int64_t kWrittenEvery = 60;

// The day of `month` that `time` is in; it must be one of its days.
HistorySpan& DayOfMonth(HistoryMonth& month, std::int64_t time) {
  return month.days.at(static_cast<std::size_t>((time - month.whole.begin) / kSecondsPerDay));
}

}  // namespace

HistoryReader::HistoryReader(const std::string& path, std::chrono::milliseconds timeout)
    : database_(path, Database::Mode::Read, timeout) {
  database_.Run("BEGIN");  // one state for all that follows
  CheckHistory(database_);
}

HistoryMonth HistoryReader::Month(const UtcMonth& month, std::int64_t now) {
  // The server's clock may have run ahead.
  const std::int64_t written = std::min(database_.Number("SELECT max(written) FROM run"), now);
  const std::int64_t end = std::min(month.end, std::max(written, now - kWrittenEvery));
  HistoryMonth found;
  found.whole = {.begin = month.begin, .seconds = std::max<std::int64_t>(end - month.begin, 0), .uses = {}};
  for (std::int64_t day = month.begin; day < end; day += kSecondsPerDay) {
    found.days.push_back({.begin = day, .seconds = std::min(kSecondsPerDay, end - day), .uses = {}});
  }
  ReadSeen(found, end);
  ReadUses(found, end);
  ReadCameras(found, end);
  return found;
}

void HistoryReader::ReadSeen(HistoryMonth& month, std::int64_t end) {
  Statement seen(database_,
                 "SELECT hour, min(sum(seen), 3600) FROM hour WHERE hour >= ? AND hour < ? GROUP BY hour");
  seen.With(month.whole.begin, end);
  while (seen.Step()) {
    DayOfMonth(month, seen.Number(0)).seen += seen.Number(1);
    month.whole.seen += seen.Number(1);
  }
}

void HistoryReader::ReadUses(HistoryMonth& month, std::int64_t end) {
  Statement use(
      database_,
      "SELECT hour, name, peak, peak_time, unit_seconds FROM feature_hour "
      "JOIN feature ON id = feature WHERE hour >= ? AND hour < ? ORDER BY feature, hour, peak_time");
  use.With(month.whole.begin, end);
  while (use.Step()) {
    const StatusUse one{use.Text(1), use.Number(2), use.Number(3), use.Number(4)};
    AddUse(DayOfMonth(month, use.Number(0)).uses, one);
    AddUse(month.whole.uses, one);
  }
}

void HistoryReader::ReadCameras(HistoryMonth& month, std::int64_t end) {
  // Not from the view of both: in the order of their keys there is nothing to be sorted.
  for (const char* query : {
           "SELECT day, sum(camera_seconds) FROM instance_day WHERE day >= ? AND day < ? GROUP BY day",
           "SELECT hour, sum(camera_seconds) FROM instance_hour WHERE hour >= ? AND hour < ? GROUP BY hour",
       }) {
    Statement cameras(database_, query);
    cameras.With(month.whole.begin, end);
    while (cameras.Step()) {
      DayOfMonth(month, cameras.Number(0)).cameraSeconds += cameras.Number(1);
      month.whole.cameraSeconds += cameras.Number(1);
    }
  }
}

std::vector<HistoryInstance> HistoryReader::Instances(const UtcMonth& month) {
  Statement read(database_,
                 "SELECT key, identity, container, address, min(first), max(last), count(DISTINCT day), "
                 "sum(camera_seconds) FROM instance_use JOIN instance ON id = instance "
                 "WHERE day >= ? AND day < ? GROUP BY id ORDER BY identity, key");
  read.With(month.begin, month.end);
  std::vector<HistoryInstance> instances;
  while (read.Step()) {
    instances.push_back({read.Text(0), read.Text(1), read.Text(2), read.Text(3), read.Number(4),
                         read.Number(5), read.Number(6), read.Number(7)});
  }
  return instances;
}

std::vector<StatusLoss> HistoryReader::Losses(const UtcMonth& month) {
  Statement read(database_,
                 "SELECT key, identity, container, address, last, lost, reason, returned FROM loss "
                 "WHERE lost >= ? AND lost < ? ORDER BY lost DESC, key");
  read.With(month.begin, month.end);
  std::vector<StatusLoss> losses;
  while (read.Step()) {
    StatusLoss& loss = losses.emplace_back();
    loss.key = read.Text(0);
    loss.identity = read.Text(1);
    loss.container = read.Text(2);
    loss.address = read.Text(3);
    loss.last = read.Number(4);
    loss.lost = read.Number(5);
    loss.reason = read.Text(6);
    loss.returned = read.Number(7);
  }
  return losses;
}

std::optional<std::int64_t> HistoryReader::NumberOf(const std::string& key) {
  Statement find(database_, "SELECT id FROM instance WHERE key = ?");
  return find.With(key).Step() ? std::optional(find.Number(0)) : std::nullopt;
}

std::vector<InstanceHour> HistoryReader::LastHours(const std::string& key) {
  const std::optional<std::int64_t> instance = NumberOf(key);
  if (!instance) return {};
  const std::int64_t newest = HourOf(database_.Number("SELECT max(written) FROM run"));
  Statement read(database_,
                 "SELECT sum(camera_seconds), min(first), max(last) FROM instance_hour "
                 "WHERE hour = ? AND instance = ?");
  std::vector<InstanceHour> hours;
  for (std::int64_t hour = newest - 23 * kSecondsPerHour; hour <= newest; hour += kSecondsPerHour) {
    read.With(hour, *instance).Step();
    hours.push_back({hour, read.Number(0), read.Number(1), read.Number(2)});
  }
  return hours;
}
