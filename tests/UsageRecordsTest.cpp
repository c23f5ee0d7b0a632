#include "UsageRecords.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <fstream>
#include <limits>
#include <sstream>
#include <thread>

#include "TestSupport.h"

namespace {

using RequestData = UGSRequest::RequestData;

RequestData RequestOf(const std::string& id, const std::vector<std::string>& urls,
                      const ugs::UsageCounts& counts = {}) {
  return {.camRtspUrls = urls, .korvaneId = id, .dockerId = "docker", .counts = counts};
}

class UsageRecordsTest : public testing::Test {
 protected:
  std::int32_t Apply(RequestData request) { return records.ApplyRequest(request); }

  std::vector<std::string> Sweep() {
    log.Clear();
    records.CheckTimeStamp();
    return log.Lines();
  }

  // Of an instance's deletion.
  static std::string Deletion(const std::string& key, int silence) {
    return "info UsageRecords::CheckTimeStamp: Deleting korvane " + key + " as no new update after " +
           std::to_string(silence) + " seconds\n";
  }

  CapturedLog log;
  FakeClock clock{1000};
  UsageRecords records;
};

TEST_F(UsageRecordsTest, TheKeyIsTheDigestOfIdentityAndCamerasWithoutLeadingZeros) {
  const auto key = [](const std::string& id, const std::vector<std::string>& urls) {
    return UsageRecords::InstanceKey(RequestOf(id, urls));
  };
  EXPECT_EQ(key("a", {"b"}), "89c4407b545986a");
  EXPECT_EQ(key("foo", {"\x80\xff"}), "cdc0e7afa58a93be");
  EXPECT_EQ(key("i", {"a", "bc"}), key("i", {"ab", "c"}));
  EXPECT_NE(key("i", {"a", "b"}), key("i", {"b", "a"}));
  for (const std::string& none : {key("", {"b"}), key("a", {}), key("a", {"", ""})}) EXPECT_EQ(none, "");
}

TEST_F(UsageRecordsTest, ARequestWithoutAKeyLeavesNoTrace) {
  EXPECT_EQ(Apply(RequestOf("a", {}, {.maxCameras = 1})), UsageRecords::NoInstanceKey);
  EXPECT_EQ(records.Totals(), ugs::UsageCounts());
  EXPECT_TRUE(records.Snapshot().empty());
}

// The figures are 100 for the first count of the record, 101 for the second and so on.
TEST_F(UsageRecordsTest, ARequestThatReplacesAnotherIsStampedAndPrintedAsInTheGoldenLog) {
  ugs::CountSlots older{};
  ugs::CountSlots newer{};
  for (std::uint32_t i = 0; i < newer.size(); ++i) {
    older[i] = 1000 + i;
    newer[i] = 100 + i;
  }
  Apply(RequestOf("a", {"b"}, std::bit_cast<ugs::UsageCounts>(older)));
  log.Clear();
  RequestData request = RequestOf("a", {"b"}, std::bit_cast<ugs::UsageCounts>(newer));
  EXPECT_EQ(records.ApplyRequest(request), UsageRecords::Stored);
  EXPECT_EQ(request.timeStamp, 1000);
  EXPECT_EQ(records.Totals(), request.counts);
  std::ostringstream printed;
  for (const std::string& line : log.Lines()) printed << line << '\n';
  std::ostringstream golden;
  golden << std::ifstream(UGS_GOLDEN_LOG).rdbuf();
  EXPECT_EQ(printed.str(), golden.str());
}

TEST_F(UsageRecordsTest, TheNeuralPackLineNeedsAnotherFeatureInUse) {
  const auto isRequired = [this](const ugs::UsageCounts& counts) {
    log.Clear();
    Apply(RequestOf("a", {"b"}, counts));
    return log.Count("numNeuralPack : required: " + std::to_string(counts.numNeuralPack)) == 1;
  };
  EXPECT_FALSE(isRequired({}));
  EXPECT_FALSE(isRequired({.numSpare1 = 1, .numSpare2 = 1, .numDwell = 1, .numNeuralPack = 1}));
  EXPECT_TRUE(isRequired({.numCollision = 1}));
  EXPECT_TRUE(isRequired({.numPX = 1}));
}

TEST_F(UsageRecordsTest, SumsWrapAt32BitsButCamerasAreCountedIn64) {
  const std::uint32_t most = std::numeric_limits<std::uint32_t>::max();
  Apply(RequestOf("a", {"1"}, {.maxCameras = most, .numPX = most}));
  Apply(RequestOf("a", {"1", "2"}, {.maxCameras = most, .numPX = 2}));  // other cameras, another record
  EXPECT_EQ(log.Count("MaxCameras    : in use: " + std::to_string(most - 1)), 1U);
  EXPECT_EQ(log.Count("numPX         : required: 1"), 1U);
  EXPECT_EQ(log.Count("numPX         : in use: 1"), 1U);
  EXPECT_EQ(records.TotalCameras(), 2 * std::uint64_t{most});
}

TEST_F(UsageRecordsTest, ExpiryCountsTheDistanceInBothDirectionsIn32Bits) {
  struct Case {
    std::int32_t stamped;
    std::int32_t now;
    bool expires;
  };
  const auto most = std::numeric_limits<std::int32_t>::max();
  const auto least = std::numeric_limits<std::int32_t>::min();
  for (const Case& c : std::initializer_list<Case>{
           {1000, 1120, false},          //
           {1000, 1121, true},           //
           {1000, 880, false},           // 120 s in the future
           {1000, 879, true},            // 121 s in the future
           {-1, 100000, false},          // the mark of a record that was never stamped
           {most, least + 50, false},    // 51 s, over the end of 32-bit time
           {most, least + 500, true},    //
           {1000, least + 1000, false},  // exactly 2^31 s: the distance stays negative
           {1000, least + 1001, true},   //
       }) {
    UsageRecords fresh;
    RequestData request = RequestOf("a", {"b"});
    clock.now = c.stamped;
    fresh.ApplyRequest(request);
    clock.now = c.now;
    fresh.CheckTimeStamp();
    EXPECT_EQ(fresh.Snapshot().empty(), c.expires) << c.stamped << " " << c.now;
  }
}

TEST_F(UsageRecordsTest, ASweepDeletesInKeyOrderAndPrintsOneStatus) {
  std::vector<std::string> expected;
  for (const char* id : {"x", "y", "z", "w"}) {
    Apply(RequestOf(id, {"1"}, {.numPlates = 1}));
    expected.push_back(Deletion(UsageRecords::InstanceKey(RequestOf(id, {"1"})), 200));
  }
  std::ranges::sort(expected);
  clock.now = 1150;
  Apply(RequestOf("stays", {"1"}, {.numPlates = 5}));
  clock.now = 1200;
  const auto lines = Sweep();
  EXPECT_EQ(std::vector(lines.begin(), lines.begin() + 4), expected);
  EXPECT_EQ(lines.size(), 4U + 22U);
  EXPECT_EQ(log.Count("numPlates     : in use: 5"), 1U);
  EXPECT_EQ(records.Totals(), ugs::UsageCounts{.numPlates = 5});
  EXPECT_TRUE(Sweep().empty());
}

TEST_F(UsageRecordsTest, AllOfItMayBeCalledFromAnyThread) {
  const auto use = [this](int thread) {
    for (int i = 0; i < 50; ++i) {
      Apply(RequestOf(std::to_string(thread), {std::to_string(i)}, {.maxCameras = 1}));
      records.CheckTimeStamp();
      records.PrintStatus();
      EXPECT_GE(records.TotalCameras(), static_cast<std::uint64_t>(i));
      EXPECT_GE(records.Totals().maxCameras, records.Snapshot().size() > 0 ? 1U : 0U);
    }
  };
  { const std::array<std::jthread, 2> threads{std::jthread(use, 1), std::jthread(use, 2)}; }
  EXPECT_EQ(records.TotalCameras(), 100U);
}

}  // namespace
