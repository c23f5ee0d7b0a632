// The usage counts of one report, and their arithmetic.
#pragma once

#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <utility>

namespace ugs {

// One instance's counts, or a sum of them. Each but the two spares has a row in ReportLayouts.h.
// The order is the record's own: numClassTier0 came later than its neighbours.
struct UsageCounts {
  std::uint32_t maxCameras = 0;
  std::uint32_t numAbandoned = 0;
  std::uint32_t numCrossing = 0;
  std::uint32_t numAnomaly = 0;
  std::uint32_t numSpare1 = 0;  // reserved: no layout fills it
  std::uint32_t numSpare2 = 0;  // reserved: no layout fills it
  std::uint32_t numClassTier1 = 0;
  std::uint32_t numClassTier0 = 0;
  std::uint32_t numClassTier2 = 0;
  std::uint32_t numClassTier3 = 0;
  std::uint32_t numPerimeter = 0;
  std::uint32_t numDwell = 0;
  std::uint32_t numCollision = 0;
  std::uint32_t numNeuralPack = 0;
  std::uint32_t numPX = 0;
  std::uint32_t numPlates = 0;
  std::uint32_t numGenerative = 0;
  std::uint32_t numRemoteTier1 = 0;
  std::uint32_t numRemoteTier2 = 0;
  std::uint32_t numRemoteTier3 = 0;
  std::uint32_t numRemoteTier4 = 0;
  std::uint32_t numFaceTier1 = 0;
  std::uint32_t numFaceTier2 = 0;

  friend bool operator==(const UsageCounts&, const UsageCounts&) = default;
};

// The same counts by position. A long sum over slots, converted once at its end, is several times faster than
// one over the struct.
using CountSlots = std::array<std::uint32_t, sizeof(UsageCounts) / sizeof(std::uint32_t)>;

// All arithmetic on counts is unsigned and wraps.
//
// Written out slot by slot: in a loop gcc at -O2 keeps the sums in memory, and a long sum takes twice the
// time.
constexpr CountSlots& operator+=(CountSlots& sums, const UsageCounts& counts) {
  const auto added = std::bit_cast<CountSlots>(counts);
  [&]<std::size_t... slot>(std::index_sequence<slot...>) {
    ((sums[slot] += added[slot]), ...);
  }
  (std::make_index_sequence<std::tuple_size_v<CountSlots>>());
  return sums;
}

constexpr UsageCounts& operator+=(UsageCounts& sums, const UsageCounts& counts) {
  auto slots = std::bit_cast<CountSlots>(sums);
  slots += counts;
  return sums = std::bit_cast<UsageCounts>(slots);
}

constexpr UsageCounts& operator-=(UsageCounts& sums, const UsageCounts& counts) {
  auto slots = std::bit_cast<CountSlots>(sums);
  const auto removed = std::bit_cast<CountSlots>(counts);
  for (std::size_t slot = 0; slot < slots.size(); ++slot) slots[slot] -= removed[slot];
  return sums = std::bit_cast<UsageCounts>(slots);
}

}  // namespace ugs
