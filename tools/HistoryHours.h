// How the use that a snapshot tells in sums belongs to hours.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <vector>

#include "Status.h"

// Seconds seen of each hour, the newest first.
using SeenHours = std::map<std::int64_t, std::int64_t, std::greater<>>;

// Adds `use` to the one of its feature: the greater peak, of equal ones the first that was added.
void AddUse(std::vector<StatusUse>& uses, const StatusUse& use);

// What an instance did in an hour.
struct InstanceHour {
  std::int64_t hour = 0;
  std::int64_t cameraSeconds = 0;
  std::int64_t first = 0;  // when it was there, first and last
  std::int64_t last = 0;
};

// Those of `peer`, which was there until `until`, from `since` on. The number of its cameras does not change,
// so whole hours follow from what was seen of them, and the first one is what is then left of the sum.
std::vector<InstanceHour> HoursOf(const StatusPeer& peer, std::int64_t cameraSeconds, std::int64_t until,
                                  const SeenHours& seen, std::int64_t since);
