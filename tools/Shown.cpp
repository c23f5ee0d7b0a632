#include "Shown.h"

#include <clocale>
#include <ctime>
#include <cwchar>

#include "Utf8.h"

namespace {

constexpr char32_t kReplacement = 0xFFFD;
constexpr const char* kEllipsis = "…";
constexpr std::size_t kCharactersPerColumn = 4;  // no text of combining characters goes on without an end

bool SteersATerminal(char32_t character) {
  const bool isBidirectional =
      (character >= 0x202A && character <= 0x202E) || (character >= 0x2066 && character <= 0x2069);
  const bool endsALine = character == 0x2028 || character == 0x2029;
  return character < 0x20 || (character >= 0x7F && character < 0xA0) || isBidirectional || endsALine;
}

// wcwidth(3) knows no more than ASCII in the C locale, and nothing here depends on the user's.
std::size_t ColumnsOf(char32_t character) {
  static const bool hasUnicode = std::setlocale(LC_CTYPE, "C.UTF-8") != nullptr;
  if (!hasUnicode) return 1;
  const int columns = wcwidth(static_cast<wchar_t>(character));
  return columns < 0 ? 1 : static_cast<std::size_t>(columns);
}

std::string Formatted(const std::tm& local, const char* format) {
  char text[32];
  return {text, std::strftime(text, sizeof text, format, &local)};
}

}  // namespace

std::string Shown(std::string_view text, std::size_t width) {
  if (width == 0) return {};
  std::string shown;
  std::size_t fits = 0;  // bytes that leave room for the ellipsis
  std::size_t columns = 0;
  std::size_t characters = 0;
  while (!text.empty()) {
    char32_t character = TakeCharacter(text);
    if (SteersATerminal(character)) character = kReplacement;
    columns += ColumnsOf(character);
    if (columns > width || ++characters / kCharactersPerColumn > width) {
      shown.resize(fits);
      return shown + kEllipsis;
    }
    AppendUtf8(shown, character);
    if (columns < width) fits = shown.size();
  }
  return shown;
}

std::size_t WidthOf(std::string_view shown) {
  std::size_t columns = 0;
  while (!shown.empty()) columns += ColumnsOf(TakeCharacter(shown));
  return columns;
}

std::string Padded(std::string_view text, std::size_t width) {
  std::string shown = Shown(text, width);
  return shown.append(width - WidthOf(shown), ' ');
}

std::string Counted(std::int64_t number, std::string_view noun) {
  return std::to_string(number).append(" ").append(noun).append(number == 1 ? "" : "s");
}

std::string ShownAge(std::int64_t seconds) {
  constexpr std::int64_t minute = 60;
  constexpr std::int64_t hour = 60 * minute;
  constexpr std::int64_t day = 24 * hour;
  if (seconds < 2 * minute) return std::to_string(seconds < 0 ? 0 : seconds) + " s";
  if (seconds < 2 * hour) return std::to_string(seconds / minute) + " min";
  if (seconds < 2 * day) return std::to_string(seconds / hour) + " h";
  return std::to_string(seconds / day) + " d";
}

std::string ShownTime(std::int64_t time, std::int64_t now) {
  if (time == 0) return "never";
  const auto seconds = static_cast<std::time_t>(time);
  const auto today = static_cast<std::time_t>(now);
  std::tm local{};
  std::tm localNow{};
  if (localtime_r(&seconds, &local) == nullptr || localtime_r(&today, &localNow) == nullptr) return "?";
  const bool isToday = local.tm_yday == localNow.tm_yday && local.tm_year == localNow.tm_year;
  return Formatted(local, isToday ? "%H:%M:%S" : "%Y-%m-%d %H:%M:%S");
}
