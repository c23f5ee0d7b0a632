// What the server that shows its status and the programs that read it must agree on.
#pragma once

#include <cstddef>
#include <cstdint>

namespace ugs {

// From here on a count is a negative number in disguise, as instances send them.
inline constexpr std::uint32_t kNegativeFrom = 1U << 31U;

// So many losses the server keeps: with as many, there may have been others before them.
inline constexpr std::size_t kLossesKept = 1000;

// An instance is overdue after so many seconds of silence. `period`: its seconds between reports; 0 before
// its second report.
constexpr double OverdueAfter(double period) {
  constexpr double grace = 5;
  constexpr double unknownPeriod = 60;
  return period > 0 ? 2 * period + grace : unknownPeriod;
}

}  // namespace ugs
