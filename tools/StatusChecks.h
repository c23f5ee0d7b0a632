// What the operator should know of a snapshot.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "Status.h"

struct StatusProblem {
  std::string kind;  // one word, for programs
  std::string text;  // may go to a terminal
};

// All that is wrong; empty if all is well.
std::vector<StatusProblem> ProblemsOf(const StatusSnapshot& snapshot);

// A few words on losses that are no problem: all of the last hour have returned. Empty if there were none, or
// not all have.
std::string RemarkOnLosses(const StatusSnapshot& snapshot);

// Did not report when it should have: `late`, or `not_back` for longer than it takes after each rebuild.
bool IsOverdue(const StatusInstance& instance, std::int64_t now);

// A few words on why the server refuses with this code.
std::string MeaningOfRefusal(const std::string& code);

// The same for every code that the server refuses with.
const std::map<std::string, std::string>& MeaningsOfRefusals();
