// How values look on a terminal. All of it is thread-safe.
#pragma once

#include <cstddef>
#include <cstdint>
#include <limits>
#include <string>
#include <string_view>

inline constexpr std::size_t kAnyWidth = std::numeric_limits<std::size_t>::max();

// `text` as a terminal may get it: what could steer one (C0, DEL, C1, the bidirectional controls, separators
// of lines) and what is not UTF-8 is U+FFFD. What takes more than `width` columns is cut and ends in "…".
std::string Shown(std::string_view text, std::size_t width = kAnyWidth);

// The columns that a shown text takes.
std::size_t WidthOf(std::string_view shown);

// Shown, cut and filled up with blanks to exactly `width` columns.
std::string Padded(std::string_view text, std::size_t width);

// "1 report", "2 reports"
std::string Counted(std::int64_t number, std::string_view noun);

// "12 s", "3 min", "5 h", "3 d"; negative ones, as of a clock that was set back, are "0 s".
std::string ShownAge(std::int64_t seconds);

// Seconds since 1970 as local time of day, with its date if that is not the one of `now`; "never" for 0.
std::string ShownTime(std::int64_t time, std::int64_t now);
