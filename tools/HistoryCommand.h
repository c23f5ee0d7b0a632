// `ugs history`: what was used in a month.
#pragma once

#include <string>

struct HistoryOptions {
  std::string file;
  std::string month;  // "2026-11"; the current one if empty
  bool json = false;
  bool csv = false;
  bool instances = false;    // instead of counts
  bool losses = false;       // likewise
  std::string forgetBefore;  // a month: deletes what was before it, and shows nothing
};

// Prints on standard output. Throws std::invalid_argument for what is no month, DatabaseError if there is no
// history to be read.
void ShowHistory(const HistoryOptions& options);
