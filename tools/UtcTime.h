// Days and months of UTC, which has no daylight-saving time. Times are seconds since 1970-01-01 UTC.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

inline constexpr std::int64_t kSecondsPerHour = 3600;
inline constexpr std::int64_t kSecondsPerDay = 24 * kSecondsPerHour;

// The beginning of the hour or day that `time` is in.
constexpr std::int64_t HourOf(std::int64_t time) {
  return time - time % kSecondsPerHour;
}
constexpr std::int64_t DayOf(std::int64_t time) {
  return time - time % kSecondsPerDay;
}

struct UtcMonth {
  std::string name;  // "2026-11"
  std::int64_t begin = 0;
  std::int64_t end = 0;  // the beginning of the next one
};

// "2026-11", from 1970 on; nothing else.
std::optional<UtcMonth> ParseMonth(const std::string& text);
UtcMonth MonthAt(std::int64_t time);

// "2026-11-24", and RFC 3339: "2026-11-24T18:17:28Z". Empty for what is no time that can be written so.
std::string UtcDay(std::int64_t time);
std::string UtcText(std::int64_t time);
