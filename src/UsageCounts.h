// The 23 usage counts of one report; the table that says which JSON key fills which count, from which layout
// on, and what the server logs when the key is missing; and the table of what the server prints.
#pragma once

#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

// One instance's counts, or a sum of them. All arithmetic on counts is unsigned and wraps.
// The order is the record's own: numClassTier0 came later than its neighbours, and two places are reserved.
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

  using Slots = std::array<std::uint32_t, 23>;

  // For long sums: several times faster than +=, which copies both sides.
  void AddTo(Slots& sums) const {
    const auto mine = std::bit_cast<Slots>(*this);
    for (std::size_t slot = 0; slot < mine.size(); ++slot) sums[slot] += mine[slot];
  }

  UsageCounts& operator+=(const UsageCounts& other) {
    auto sums = std::bit_cast<Slots>(*this);
    other.AddTo(sums);
    return *this = std::bit_cast<UsageCounts>(sums);
  }
  UsageCounts& operator-=(const UsageCounts& other) {
    auto mine = std::bit_cast<Slots>(*this);
    const auto theirs = std::bit_cast<Slots>(other);
    for (std::size_t slot = 0; slot < mine.size(); ++slot) mine[slot] -= theirs[slot];
    return *this = std::bit_cast<UsageCounts>(mine);
  }
  friend bool operator==(const UsageCounts&, const UsageCounts&) = default;
};
static_assert(sizeof(UsageCounts) == sizeof(UsageCounts::Slots));

// One count as it stands in a report: its key inside "InUse", where it goes, and the text logged without it.
struct CountField {
  const char* key;
  std::uint32_t UsageCounts::*member;
  const char* textWhenMissing;
};

// Every layout carries the counts of the one before it and adds its own, read in the order given here.
inline constexpr std::array kLegacyCounts{
    CountField{"MaxCameras", &UsageCounts::maxCameras, "error 0xE209:: could not read data content\n"},
    CountField{"ABD", &UsageCounts::numAbandoned, "error 0xE220:: could not read data content\n"},
    CountField{"AN", &UsageCounts::numAnomaly, "error 0xE230:: could not read data content\n"},
    CountField{"CR", &UsageCounts::numCrossing, "error 0xE235:: could not read data content\n"},
    CountField{"ClassTier1", &UsageCounts::numClassTier1, "error 0xE240:: could not read data content\n"},
    CountField{"ClassTier2", &UsageCounts::numClassTier2, "error 0xE241:: could not read data content\n"},
    CountField{"ClassTier3", &UsageCounts::numClassTier3, "error 0xE242:: could not read data content\n"},
    CountField{"Perimeter", &UsageCounts::numPerimeter, "error 0xE243:: could not read data content\n"},
    CountField{"Dwell", &UsageCounts::numDwell, "error 0xE244:: could not read data content\n"},
    CountField{"Collision", &UsageCounts::numCollision, "error 0xE245:: could not read data content\n"},
    CountField{"NeuralPack", &UsageCounts::numNeuralPack, "error 0xE246:: could not read data content\n"},
};
inline constexpr std::array kV4Counts{
    CountField{"PX", &UsageCounts::numPX, "error 0xE247:: could not read data content\n"},
    CountField{"Plates", &UsageCounts::numPlates, "error 0xE248:: could not read data content\n"},
    CountField{"Generative", &UsageCounts::numGenerative, "error 0xE249:: could not read data content\n"},
    CountField{"ClassTier0", &UsageCounts::numClassTier0, "error 0xE24A:: could not read data content\n"},
};
inline constexpr std::array kV5Counts{
    CountField{"RemoteTier1", &UsageCounts::numRemoteTier1, "error 0xE251:: could not read data content\n"},
    CountField{"RemoteTier2", &UsageCounts::numRemoteTier2, "error 0xE252:: could not read data content\n"},
    CountField{"RemoteTier3", &UsageCounts::numRemoteTier3, "error 0xE253:: could not read data content\n"},
    CountField{"RemoteTier4", &UsageCounts::numRemoteTier4, "error 0xE254:: could not read data content\n"},
};
inline constexpr std::array kV6Counts{
    CountField{"FaceTier1", &UsageCounts::numFaceTier1, "error 0xE261:: could not read data content\n"},
    CountField{"FaceTier2", &UsageCounts::numFaceTier2, "error 0xE262:: could not read data content\n"},
};

// A layout of the report document: the member of the root that holds the request (the root itself for the
// legacy layout, whose name never stands in a document) and the counts that this layout added.
struct Layout {
  const char* name;
  std::span<const CountField> addedCounts;
};
inline constexpr std::array kLayouts{
    Layout{"legacy", kLegacyCounts},
    Layout{"v4", kV4Counts},
    Layout{"v5", kV5Counts},
    Layout{"v6", kV6Counts},
};

// One line of the server's prints: the label before the colon, and the count. In the status report's order.
// Dwell, Collision and the reserved places are summed but never printed.
struct ReportRow {
  std::string_view label;
  std::uint32_t UsageCounts::*member;
};
inline constexpr std::array kReportRows{
    ReportRow{"MaxCameras", &UsageCounts::maxCameras},
    ReportRow{"numAbandoned", &UsageCounts::numAbandoned},
    ReportRow{"numCrossing", &UsageCounts::numCrossing},
    ReportRow{"numAnomaly", &UsageCounts::numAnomaly},
    ReportRow{"numClassTier0", &UsageCounts::numClassTier0},
    ReportRow{"numClassTier1", &UsageCounts::numClassTier1},
    ReportRow{"numClassTier2", &UsageCounts::numClassTier2},
    ReportRow{"numClassTier3", &UsageCounts::numClassTier3},
    ReportRow{"numPerimeter", &UsageCounts::numPerimeter},
    ReportRow{"numNeuralPack", &UsageCounts::numNeuralPack},
    ReportRow{"numPX", &UsageCounts::numPX},
    ReportRow{"numPlates", &UsageCounts::numPlates},
    ReportRow{"numGenerative", &UsageCounts::numGenerative},
    ReportRow{"numRemoteTier1", &UsageCounts::numRemoteTier1},
    ReportRow{"numRemoteTier2", &UsageCounts::numRemoteTier2},
    ReportRow{"numRemoteTier3", &UsageCounts::numRemoteTier3},
    ReportRow{"numRemoteTier4", &UsageCounts::numRemoteTier4},
    ReportRow{"numFaceTier1", &UsageCounts::numFaceTier1},
    ReportRow{"numFaceTier2", &UsageCounts::numFaceTier2},
};
