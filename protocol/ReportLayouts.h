// The layouts of a report document. One row per count says all that is known of it: its JSON key, where its
// value goes, what the server logs when the key is missing, and how the server prints the count. The server's
// parsers and prints, the client's documents and the tools follow from these rows.
#pragma once

#include <algorithm>
#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <span>
#include <string_view>

#include "UsageCounts.h"

namespace ugs {

// The members that every request has.
inline constexpr const char* kInstanceIdMember = "KorvaneID";
inline constexpr const char* kContainerMember = "DockerID";
inline constexpr const char* kCameraUrlsMember = "CamRtspUrls";
inline constexpr const char* kCountsMember = "InUse";

inline constexpr std::size_t kNeverPrinted = std::numeric_limits<std::size_t>::max();

struct CountField {
  const char* key;  // inside "InUse"
  std::uint32_t UsageCounts::*member;
  const char* codeWhenMissing;  // in the server's log
  std::string_view label;       // in the server's prints
  std::size_t line;             // of a status report, from 1 on; or kNeverPrinted: the count is only summed
};

// Every layout carries the counts of the one before it and adds its own, read in the order given here.
inline constexpr std::array kLegacyCounts{
    CountField{"MaxCameras", &UsageCounts::maxCameras, "0xE209", "MaxCameras", 1},
    CountField{"ABD", &UsageCounts::numAbandoned, "0xE220", "numAbandoned", 2},
    CountField{"AN", &UsageCounts::numAnomaly, "0xE230", "numAnomaly", 4},
    CountField{"CR", &UsageCounts::numCrossing, "0xE235", "numCrossing", 3},
    CountField{"ClassTier1", &UsageCounts::numClassTier1, "0xE240", "numClassTier1", 6},
    CountField{"ClassTier2", &UsageCounts::numClassTier2, "0xE241", "numClassTier2", 7},
    CountField{"ClassTier3", &UsageCounts::numClassTier3, "0xE242", "numClassTier3", 8},
    CountField{"Perimeter", &UsageCounts::numPerimeter, "0xE243", "numPerimeter", 9},
    CountField{"Dwell", &UsageCounts::numDwell, "0xE244", "numDwell", kNeverPrinted},
    CountField{"Collision", &UsageCounts::numCollision, "0xE245", "numCollision", kNeverPrinted},
    CountField{"NeuralPack", &UsageCounts::numNeuralPack, "0xE246", "numNeuralPack", 10},
};
inline constexpr std::array kV4Counts{
    CountField{"PX", &UsageCounts::numPX, "0xE247", "numPX", 11},
    CountField{"Plates", &UsageCounts::numPlates, "0xE248", "numPlates", 12},
    CountField{"Generative", &UsageCounts::numGenerative, "0xE249", "numGenerative", 13},
    CountField{"ClassTier0", &UsageCounts::numClassTier0, "0xE24A", "numClassTier0", 5},
};
inline constexpr std::array kV5Counts{
    CountField{"RemoteTier1", &UsageCounts::numRemoteTier1, "0xE251", "numRemoteTier1", 14},
    CountField{"RemoteTier2", &UsageCounts::numRemoteTier2, "0xE252", "numRemoteTier2", 15},
    CountField{"RemoteTier3", &UsageCounts::numRemoteTier3, "0xE253", "numRemoteTier3", 16},
    CountField{"RemoteTier4", &UsageCounts::numRemoteTier4, "0xE254", "numRemoteTier4", 17},
};
inline constexpr std::array kV6Counts{
    CountField{"FaceTier1", &UsageCounts::numFaceTier1, "0xE261", "numFaceTier1", 18},
    CountField{"FaceTier2", &UsageCounts::numFaceTier2, "0xE262", "numFaceTier2", 19},
};

// A layout: the member of the root that holds the request, and the counts that this layout added.
struct Layout {
  const char* name;
  std::span<const CountField> addedCounts;
};
// In the legacy layout the root itself is the request; the name never appears in a document.
inline constexpr Layout kLegacyLayout{"legacy", kLegacyCounts};
inline constexpr Layout kV4Layout{"v4", kV4Counts};
inline constexpr Layout kV5Layout{"v5", kV5Counts};
inline constexpr Layout kV6Layout{"v6", kV6Counts};
inline constexpr std::array kLayouts{kLegacyLayout, kV4Layout, kV5Layout, kV6Layout};  // oldest first

namespace detail {

template <typename Action>
constexpr void ForEachCount(Action action) {
  for (const Layout& layout : kLayouts) {
    for (const CountField& field : layout.addedCounts) action(field);
  }
}

constexpr std::size_t PrintedCounts() {
  std::size_t count = 0;
  ForEachCount([&](const CountField& field) { count += field.line != kNeverPrinted ? 1U : 0U; });
  return count;
}

constexpr bool EveryCountHasOneRow() {
  CountSlots rows{};
  ForEachCount([&](const CountField& field) {
    UsageCounts one;
    one.*field.member = 1;
    rows += one;
  });
  const auto perCount = std::bit_cast<UsageCounts>(rows);
  UsageCounts expected = perCount;
  expected.numSpare1 = expected.numSpare2 = 1;
  return perCount.numSpare1 == 0 && perCount.numSpare2 == 0 &&
         std::ranges::all_of(std::bit_cast<CountSlots>(expected), [](std::uint32_t n) { return n == 1; });
}
static_assert(EveryCountHasOneRow(), "a member of UsageCounts has no row, or two");

}  // namespace detail

// The counts that the server prints, in the order of the status report.
inline constexpr auto kPrintedCounts = [] {
  std::array<CountField, detail::PrintedCounts()> fields{};
  detail::ForEachCount([&](const CountField& field) {
    // Line 0, a row that names none, does not compile.
    if (field.line != kNeverPrinted) fields.at(field.line - 1) = field;
  });
  return fields;
}();
static_assert(std::ranges::all_of(kPrintedCounts,
                                  [](const CountField& field) { return field.key != nullptr; }),
              "two counts have the same line of the status report");

}  // namespace ugs
