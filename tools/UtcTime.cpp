#include "UtcTime.h"

#include <chrono>
#include <cstddef>
#include <ctime>
#include <string_view>

namespace {

using Days = std::chrono::sys_days;

std::int64_t Begin(std::chrono::year_month month) {
  return std::chrono::sys_seconds(Days(month / 1)).time_since_epoch().count();
}

std::string Formatted(std::int64_t time, const char* format) {
  const auto seconds = static_cast<std::time_t>(time);
  std::tm utc{};
  char text[64];
  if (gmtime_r(&seconds, &utc) == nullptr) return {};
  return {text, std::strftime(text, sizeof text, format, &utc)};
}

UtcMonth Month(std::chrono::year_month month) {
  const std::int64_t begin = Begin(month);
  return {Formatted(begin, "%Y-%m"), begin, Begin(month + std::chrono::months(1))};
}

}  // namespace

std::optional<UtcMonth> ParseMonth(const std::string& text) {
  constexpr std::string_view kForm = "0000-00";
  if (text.size() != kForm.size()) return std::nullopt;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const bool isDigit = text[i] >= '0' && text[i] <= '9';
    if (kForm[i] == '-' ? text[i] != '-' : !isDigit) return std::nullopt;
  }
  const std::chrono::year_month month(std::chrono::year(std::stoi(text)),
                                      std::chrono::month(static_cast<unsigned>(std::stoi(text.substr(5)))));
  if (!month.ok() || Begin(month) < 0) return std::nullopt;
  return Month(month);
}

UtcMonth MonthAt(std::int64_t time) {
  const std::chrono::year_month_day day(
      std::chrono::floor<std::chrono::days>(std::chrono::sys_seconds(std::chrono::seconds(time))));
  return Month(day.year() / day.month());
}

std::string UtcDay(std::int64_t time) {
  return Formatted(time, "%Y-%m-%d");
}

std::string UtcText(std::int64_t time) {
  return Formatted(time, "%Y-%m-%dT%H:%M:%SZ");
}
