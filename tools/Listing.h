// A table of values, and its three forms: for people, for spreadsheets and for programs.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "Status.h"

struct Time {
  std::int64_t seconds;  // since 1970; 0 is never
};
// As Time, and UTC in tables, too.
struct UtcTime {
  std::int64_t seconds;
};
struct Age {
  std::int64_t seconds;
};
struct Hours {
  std::int64_t seconds;
};
// What of `whole` there is; never rounded up, so that 1 is all of it.
struct Share {
  std::int64_t part;
  std::int64_t whole;

  [[nodiscard]] double Value() const;
};
// Of 64 hexadecimal digits, as of SHA-256, tables show the first 12. Any other text is shown as it is.
struct Digest {
  std::string text;
};
using Cell = std::variant<std::string, std::int64_t, Time, UtcTime, Age, Hours, Share, Digest, StatusCounts,
                          std::vector<std::string>>;

struct Column {
  std::string name;   // in CSV and JSON; those without one leave the column out
  std::string title;  // in tables; those without one leave the column out
};

struct Listing {
  std::vector<Column> columns;
  std::vector<std::vector<Cell>> rows;
};

template <typename Row>
struct ColumnOf {
  Column column;
  std::function<Cell(const Row&)> cell;
};

template <typename Row>
Listing MakeListing(const std::vector<ColumnOf<Row>>& columns, const std::vector<Row>& rows) {
  Listing listing;
  for (const auto& column : columns) listing.columns.push_back(column.column);
  for (const Row& row : rows) {
    auto& cells = listing.rows.emplace_back();
    for (const auto& column : columns) cells.push_back(column.cell(row));
  }
  return listing;
}

// "MaxCameras 4, PX 2"
std::string ShownCounts(const StatusCounts& counts);
std::string Joined(const std::vector<std::string>& texts, std::string_view separator);

// `now` tells which times are today's.
std::string ShownCell(const Cell& cell, std::int64_t now);

// Its lines, the titles first, no longer than their last cell needs. Cells of text are cut to `widest`
// columns. `now` tells which times are today's.
std::vector<std::string> TableOf(const Listing& listing, std::int64_t now, std::size_t widest = 40);

// RFC 4180, with a header. Times are RFC 3339 in UTC. What a spreadsheet would take for a formula has a '
// before it.
std::string CsvOf(const Listing& listing);
