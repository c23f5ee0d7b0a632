// The log lines of the server that tools read: the server writes and `ugs` finds the same texts. Patterns are
// those of the fmt library. Operators' searches and the monitoring rely on them, too: they do not change.
#pragma once

#include <cstddef>
#include <string_view>

namespace ugs {

// Of every accepted report, with the time in seconds since 1970-01-01 UTC.
inline constexpr char kNewRequestText[] = "==================== DETECT NEW REQUEST - {} ====================";

// Of an instance that expired, with its key and the seconds since its last report.
inline constexpr char kExpiredText[] = "Deleting korvane {0} as no new update after {1} seconds\n";

// Of a status report: its first line, with the server's version; and between a count's label, padded with
// blanks, and its figure.
inline constexpr char kStatusHeaderText[] = "******** UGS version {} **************";
inline constexpr std::string_view kInUseMark = ": in use: ";

// The log is one active file, NAME.txt, and older ones, NAME.1.txt (the newest) to NAME.5.txt.
inline constexpr std::size_t kOlderLogFiles = 5;

// What a line begins with that was written with `pattern`.
constexpr std::string_view Beginning(std::string_view pattern) {
  return pattern.substr(0, pattern.find('{'));
}

}  // namespace ugs
