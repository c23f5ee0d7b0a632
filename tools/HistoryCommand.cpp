#include "HistoryCommand.h"

#include <fmt/format.h>

#include <ctime>
#include <iostream>
#include <stdexcept>

#include "HistoryPages.h"
#include "HistoryReader.h"
#include "HistoryStore.h"
#include "JsonOutput.h"
#include "Listing.h"
#include "StatusListings.h"

namespace {

UtcMonth MonthOf(const std::string& option, const std::string& text) {
  if (const std::optional<UtcMonth> month = ParseMonth(text)) return *month;
  throw std::invalid_argument(option + " " + text + " is no month as 2026-11 is");
}

void PrintTable(const Listing& listing, std::int64_t now, const std::string& whenEmpty) {
  if (listing.rows.empty()) {
    std::cout << whenEmpty << "\n";
    return;
  }
  for (const std::string& line : TableOf(listing, now)) std::cout << line << "\n";
}

void PrintListing(const Listing& listing, const HistoryOptions& options, const UtcMonth& month,
                  const char* name) {
  if (options.csv) {
    std::cout << CsvOf(listing);
  } else if (options.json) {
    JsonOutput json;
    json->StartObject();
    json.Put("month", month.name);
    json.Put(name, listing);
    json->EndObject();
    std::cout << json.Text();
  } else {
    PrintTable(listing, 0, fmt::format("no {} in {}", name, month.name));
  }
}

// The month as a whole, then its days.
void PrintMonth(const UtcMonth& month, const HistoryMonth& found) {
  Listing whole = ListDays({.whole = {}, .days = {found.whole}});
  whole.columns.front() = {"month", "month (UTC)"};
  for (auto& row : whole.rows) row.front() = month.name;
  PrintTable(whole, 0, "");
  std::cout << "\n";
  PrintTable(ListDays(found), 0, "no day of " + month.name + " has begun");
  const std::int64_t unseen = found.whole.seconds - found.whole.seen;
  if (unseen > 0) {
    std::cout << fmt::format(
        "\nNothing is known of {:.2f} hours in which no server ran, or none was heard.\n",
        static_cast<double>(unseen) / kSecondsPerHour);
  }
}

}  // namespace

void ShowHistory(const HistoryOptions& options) {
  if (!options.forgetBefore.empty()) {
    const UtcMonth month = MonthOf("--forget-before", options.forgetBefore);
    static_cast<void>(HistoryReader(options.file));  // rather than making a file that is not there
    HistoryStore(options.file).Forget(month.begin);
    return;
  }
  const std::int64_t now = std::time(nullptr);
  const UtcMonth month = options.month.empty() ? MonthAt(now) : MonthOf("--month", options.month);
  HistoryReader history(options.file);
  if (options.instances) {
    PrintListing(ListInstances(history.Instances(month)), options, month, "instances");
  } else if (options.losses) {
    PrintListing(ListLosses(history.Losses(month)), options, month, "losses");
  } else if (const HistoryMonth found = history.Month(month, now); options.json) {
    std::cout << HistoryJson(month, found, {});
  } else if (options.csv) {
    std::cout << CsvOf(ListDays(found));
  } else {
    PrintMonth(month, found);
  }
}
