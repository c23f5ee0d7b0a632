// `ugs status`, `instances`, `losses` and `refusals`. Each prints on standard output, and throws NoStatus if
// there is no server to ask.
#pragma once

#include <string>
#include <vector>

#include "Status.h"
#include "StatusChecks.h"

struct StatusOptions {
  std::string socket;
  bool json = false;
  bool csv = false;
  std::string feature;  // of the instances, only those that use it
  std::string sort = "identity";
};

// Returns true if all is well.
bool ShowStatus(const StatusOptions& options);

// Throws std::invalid_argument if there is no such count as `feature` or `sort`.
void ShowInstances(const StatusOptions& options);
void ShowLosses(const StatusOptions& options);
void ShowRefusals(const StatusOptions& options);

// One line each on the server, its fleet and its load.
std::vector<std::string> SummaryOf(const StatusSnapshot& snapshot);

// "well", or the number of problems.
std::string Verdict(const std::vector<StatusProblem>& problems);
