// The history as text: JSON and CSV, for the page and for `ugs history`.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "HistoryReader.h"
#include "Listing.h"

// For each day a line for the cameras, whose unit-hours are camera-hours, and one for each count.
Listing ListDays(const HistoryMonth& month);
Listing ListInstances(const std::vector<HistoryInstance>& instances);

// One object: docs/status.md says what is in it. `trouble` says why the newest is missing, if it is.
std::string HistoryJson(const UtcMonth& month, const HistoryMonth& found, const std::string& trouble);

// What is asked for by its path, with the parameters that the paths take.
struct HistoryQuestion {
  std::string path;
  std::optional<std::string> month;
  std::optional<std::string> key;
};

struct HistoryAnswer {
  unsigned status = 200;  // RFC 9110
  const char* type = "application/json";
  std::string body;
};

bool IsOfHistory(std::string_view path);

// For a path that is of the history. `now` is the clock's, `trouble` as above. Never throws DatabaseError: it
// is an answer, too.
HistoryAnswer AnswerFromHistory(const std::string& file, const HistoryQuestion& question, std::int64_t now,
                                const std::string& trouble);
