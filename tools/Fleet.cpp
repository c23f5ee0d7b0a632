#include "Fleet.h"

#include <optional>
#include <stdexcept>

#include "FleetReport.h"
#include "FleetRun.h"
#include "ServerLog.h"

bool RunFleet(const FleetOptions& options) {
  if ((options.rate > 0) == (options.period > 0)) {
    throw std::invalid_argument("give either --rate or --period");
  }
  const double rate = options.rate > 0 ? options.rate : options.instances / options.period;
  if (rate * options.duration < 1) throw std::invalid_argument("no report is due within the duration");
  std::optional<CsvFile> csv;
  if (!options.csv.empty()) csv.emplace(options.csv);  // now: an outcome must not be lost for it
  FleetRun run(options, rate);
  // Notes where the log ends now: only what this run adds to it counts.
  const auto log = options.log.empty() ? std::nullopt : std::optional<ServerLog>(options.log);
  const FleetRecord record = run.Run();
  const FleetOutcome outcome = Evaluate(record, options.instances, log);
  if (options.json) {
    PrintJson(outcome);
  } else {
    PrintText(outcome);
  }
  if (csv) csv->Write(record);
  return outcome.IsGood();
}
