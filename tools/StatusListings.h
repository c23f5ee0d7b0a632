// The listings of a snapshot: which columns each has, and in which order its lines come.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "Listing.h"
#include "Status.h"

// The names of all counts, in the order of the layouts.
std::vector<std::string> FeatureNames();

// `order` is age (the longest silence first), identity, cameras or the name of a count (the highest first).
void SortInstances(std::vector<StatusInstance>& instances, const std::string& order);

// With a column of its own for the count `feature`, unless that is empty. Tables tell apart by their keys and
// first cameras those that are counted more than once under one identity.
Listing ListInstances(const std::vector<StatusInstance>& instances, std::int64_t now,
                      const std::string& feature = "");
// Those that are still away first, and otherwise as they are: the newest first.
Listing ListLosses(std::vector<StatusLoss> losses);
Listing ListRefusals(const std::vector<StatusRefusal>& refusals);
