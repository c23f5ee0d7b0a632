#include "Listing.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <type_traits>

#include "Shown.h"
#include "UtcTime.h"

namespace {

double ValueOf(Hours hours) {
  return static_cast<double>(hours.seconds) / kSecondsPerHour;
}

double Floored(double number, int digits) {
  const double power = std::pow(10, digits);
  return std::floor(number * power) / power;
}

std::string CsvTime(std::int64_t seconds) {
  return seconds == 0 ? "" : UtcText(seconds);
}

std::string ShownDigest(const std::string& text, std::size_t widest) {
  constexpr std::size_t digits = 64;
  constexpr std::size_t enough = 12;  // to tell them apart, and to find one in a log
  const bool isDigest =
      text.size() == digits && text.find_first_not_of("0123456789abcdefABCDEF") == std::string::npos;
  return isDigest && widest != kAnyWidth ? text.substr(0, enough) : Shown(text, widest);
}

std::string CellText(const Cell& cell, std::int64_t now, std::size_t widest) {
  return std::visit(
      [&](const auto& value) -> std::string {
        using Value = std::decay_t<decltype(value)>;
        if constexpr (std::is_same_v<Value, std::string>) return Shown(value, widest);
        if constexpr (std::is_same_v<Value, std::int64_t>) return std::to_string(value);
        if constexpr (std::is_same_v<Value, Time>) return ShownTime(value.seconds, now);
        if constexpr (std::is_same_v<Value, UtcTime>) return CsvTime(value.seconds);
        if constexpr (std::is_same_v<Value, Age>) return ShownAge(value.seconds);
        if constexpr (std::is_same_v<Value, Hours>) return fmt::format("{:.2f}", ValueOf(value));
        if constexpr (std::is_same_v<Value, Share>)
          return fmt::format("{:.2f} %", Floored(100 * value.Value(), 2));
        if constexpr (std::is_same_v<Value, Digest>) return ShownDigest(value.text, widest);
        if constexpr (std::is_same_v<Value, StatusCounts>) return Shown(ShownCounts(value));
        if constexpr (std::is_same_v<Value, std::vector<std::string>>) return Shown(Joined(value, " "));
      },
      cell);
}

std::string CsvCell(const Cell& cell) {
  if (const auto* time = std::get_if<Time>(&cell)) return CsvTime(time->seconds);
  if (const auto* age = std::get_if<Age>(&cell)) return std::to_string(age->seconds);
  if (const auto* hours = std::get_if<Hours>(&cell)) return fmt::format("{:.4f}", ValueOf(*hours));
  if (const auto* share = std::get_if<Share>(&cell)) return fmt::format("{:.6f}", Floored(share->Value(), 6));
  std::string text = CellText(cell, 0, kAnyWidth);
  if (!text.empty() && std::string_view("=+-@").find(text.front()) != std::string_view::npos)
    text.insert(0, "'");
  if (text.find_first_of("\",") == std::string::npos) return text;
  std::string quoted = "\"";
  for (const char character : text) quoted.append(character == '"' ? 2 : 1, character);
  return quoted + "\"";
}

bool IsNumber(const Cell& cell) {
  return std::holds_alternative<std::int64_t>(cell) || std::holds_alternative<Age>(cell) ||
         std::holds_alternative<Hours>(cell) || std::holds_alternative<Share>(cell);
}

}  // namespace

double Share::Value() const {
  return whole <= 0 ? 0 : std::min(1.0, static_cast<double>(part) / static_cast<double>(whole));
}

std::string Joined(const std::vector<std::string>& texts, std::string_view separator) {
  std::string joined;
  for (const std::string& text : texts) joined.append(joined.empty() ? "" : separator).append(text);
  return joined;
}

std::string ShownCounts(const StatusCounts& counts) {
  std::vector<std::string> texts;
  for (const auto& [name, count] : counts) texts.push_back(name + " " + std::to_string(count));
  return Joined(texts, ", ");
}

std::string ShownCell(const Cell& cell, std::int64_t now) {
  return CellText(cell, now, kAnyWidth);
}

std::vector<std::string> TableOf(const Listing& listing, std::int64_t now, std::size_t widest) {
  std::vector<std::string> lines(listing.rows.size() + 1);
  for (std::size_t column = 0; column < listing.columns.size(); ++column) {
    if (listing.columns[column].title.empty()) continue;
    std::vector<std::string> texts{listing.columns[column].title};
    for (const auto& row : listing.rows) texts.push_back(CellText(row[column], now, widest));
    std::vector<std::size_t> widths;
    for (const std::string& text : texts) widths.push_back(WidthOf(text));
    const std::size_t width = *std::max_element(widths.begin(), widths.end());
    const bool isNumber = std::any_of(listing.rows.begin(), listing.rows.end(),
                                      [&](const auto& row) { return IsNumber(row[column]); });
    for (std::size_t line = 0; line < lines.size(); ++line) {
      const std::string fill(width - widths[line], ' ');
      lines[line] += isNumber ? fill + texts[line] : texts[line] + fill;
      lines[line] += "  ";
    }
  }
  for (std::string& line : lines) line.erase(line.find_last_not_of(' ') + 1);
  return lines;
}

std::string CsvOf(const Listing& listing) {
  constexpr const char* kEndOfLine = "\r\n";
  std::string csv;
  const auto addLine = [&](auto cellOf) {
    const char* separator = "";
    for (std::size_t column = 0; column < listing.columns.size(); ++column) {
      if (listing.columns[column].name.empty()) continue;
      csv.append(separator).append(cellOf(column));
      separator = ",";
    }
    csv += kEndOfLine;
  };
  addLine([&](std::size_t column) { return listing.columns[column].name; });
  for (const auto& row : listing.rows) addLine([&](std::size_t column) { return CsvCell(row[column]); });
  return csv;
}
