#include "HistoryPages.h"

#include <chrono>

#include "JsonOutput.h"

namespace {

constexpr std::chrono::milliseconds kPageWaits(500);  // all of the page waits meanwhile

constexpr const char* kCameras = "cameras";
constexpr const char* kMonth = "/history";
constexpr const char* kMonthCsv = "/history.csv";
constexpr const char* kHours = "/day";

void AddDay(Listing& listing, const HistorySpan& day) {
  const std::string date = UtcDay(day.begin);
  const Share seen{day.seen, day.seconds};
  const std::string none;
  listing.rows.push_back({date, std::string(kCameras), none, none, Hours{day.cameraSeconds}, seen});
  for (const StatusUse& use : day.uses) {
    listing.rows.push_back(
        {date, use.feature, use.peak, UtcTime{use.peakTime}, Hours{use.unitSeconds}, seen});
  }
}

// The members of a day or month.
void PutSpan(JsonOutput& json, const HistorySpan& span) {
  json.Put("seen", Share{span.seen, span.seconds});
  json.Put("camera_hours", Hours{span.cameraSeconds});
  json->Key("features");
  json->StartObject();
  for (const StatusUse& use : span.uses) {
    json->Key(use.feature.c_str());
    json->StartObject();
    json.Put("peak", use.peak);
    json.Put("peak_time", use.peakTime);
    json.Put("unit_hours", Hours{use.unitSeconds});
    json->EndObject();
  }
  json->EndObject();
}

std::string HoursJson(const std::string& key, const std::vector<InstanceHour>& hours) {
  JsonOutput json;
  json->StartObject();
  json.Put("key", key);
  json->Key("hours");
  json->StartArray();
  for (const InstanceHour& hour : hours) {
    json->StartObject();
    json.Put("hour", hour.hour);
    json.Put("camera_seconds", hour.cameraSeconds);
    json->EndObject();
  }
  json->EndArray();
  json->EndObject();
  return json.Text();
}

HistoryAnswer Failure(unsigned status, const std::string& why) {
  JsonOutput json;
  json->StartObject();
  json.Put("error", why);
  json->EndObject();
  return {.status = status, .body = json.Text()};
}

constexpr unsigned kBadRequest = 400;
constexpr unsigned kUnavailable = 503;

HistoryAnswer AnswerHours(const std::string& file, const HistoryQuestion& question) {
  if (!question.key) return Failure(kBadRequest, "/day takes the key of an instance: /day?key=KEY");
  // None, of one that it does not have: a failure would be an error in the browser's console, and it may be
  // just new.
  return {.body = HoursJson(*question.key, HistoryReader(file, kPageWaits).LastHours(*question.key))};
}

HistoryAnswer AnswerMonth(const std::string& file, const HistoryQuestion& question, std::int64_t now,
                          const std::string& trouble) {
  const std::optional<UtcMonth> month = question.month ? ParseMonth(*question.month) : MonthAt(now);
  if (!month) return Failure(kBadRequest, "month must be one as 2026-11 is");
  const HistoryMonth found = HistoryReader(file, kPageWaits).Month(*month, now);
  if (question.path == kMonthCsv) {
    return {.type = "text/csv; charset=utf-8; header=present", .body = CsvOf(ListDays(found))};
  }
  return {.body = HistoryJson(*month, found, trouble)};
}

}  // namespace

Listing ListDays(const HistoryMonth& month) {
  Listing listing;
  listing.columns = {{"day", "day (UTC)"}, {"feature", "feature"},       {"peak", "peak"},
                     {"peak_time", "at"},  {"unit_hours", "unit-hours"}, {"seen", "seen"}};
  for (const HistorySpan& day : month.days) AddDay(listing, day);
  return listing;
}

Listing ListInstances(const std::vector<HistoryInstance>& instances) {
  using Row = HistoryInstance;
  return MakeListing<Row>(
      {
          {{"identity", "identity"},
           [](const Row& row) {
             return row.identity;
           }},
          {{"camera_hours", "camera-hours"},
           [](const Row& row) {
             return Hours{row.cameraSeconds};
           }},
          {{"days", "days"},
           [](const Row& row) {
             return row.days;
           }},
          {{"first", "first seen"},
           [](const Row& row) {
             return UtcTime{row.first};
           }},
          {{"last", "last seen"},
           [](const Row& row) {
             return UtcTime{row.last};
           }},
          {{"address", "address"},
           [](const Row& row) {
             return row.address;
           }},
          {{"container", "container"},
           [](const Row& row) {
             return Digest{row.container};
           }},
          {{"key", ""},
           [](const Row& row) {
             return row.key;
           }},
      },
      instances);
}

std::string HistoryJson(const UtcMonth& month, const HistoryMonth& found, const std::string& trouble) {
  JsonOutput json;
  json->StartObject();
  json.Put("month", month.name);
  PutSpan(json, found.whole);
  json->Key("days");
  json->StartArray();
  for (const HistorySpan& day : found.days) {
    json->StartObject();
    json.Put("day", UtcDay(day.begin));
    PutSpan(json, day);
    json->EndObject();
  }
  json->EndArray();
  if (!trouble.empty()) json.Put("error", trouble);
  json->EndObject();
  return json.Text();
}

bool IsOfHistory(std::string_view path) {
  return path == kMonth || path == kMonthCsv || path == kHours;
}

HistoryAnswer AnswerFromHistory(const std::string& file, const HistoryQuestion& question, std::int64_t now,
                                const std::string& trouble) {
  try {
    return question.path == kHours ? AnswerHours(file, question) : AnswerMonth(file, question, now, trouble);
  } catch (const DatabaseError& error) {
    return Failure(kUnavailable, error.what());
  }
}
