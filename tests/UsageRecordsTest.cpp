#include "UsageRecords.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <limits>

#include "TestSupport.h"

namespace {

using RequestData = UGSRequest::RequestData;

RequestData RequestOf(const std::string& id, const std::vector<std::string>& urls, UsageCounts counts = {}) {
  return {.camRtspUrls = urls, .korvaneId = id, .dockerId = "docker", .timeStamp = -1, .counts = counts};
}

class UsageRecordsTest : public testing::Test {
 protected:
  std::int32_t Apply(RequestData request) { return records.ApplyRequest(request); }

  std::vector<std::string> Sweep() {
    log.Clear();
    records.CheckTimeStamp();
    return log.Texts();
  }

  // The figure that the last line with this label shows; nothing if there was none.
  std::optional<std::uint32_t> Figure(const std::string& label) const {
    std::optional<std::uint32_t> figure;
    for (const std::string& text : log.Texts()) {
      if (text.starts_with(label)) figure = std::stoul(text.substr(text.rfind(' ')));
    }
    return figure;
  }

  CapturedLog log;
  StandingClock clock{1000};
  UsageRecords records;
};

TEST_F(UsageRecordsTest, TheKeyIsTheDigestOfIdentityAndCamerasWithoutLeadingZeros) {
  EXPECT_EQ(UsageRecords::InstanceKey(RequestOf("a", {"b"})), "89c4407b545986a");
  EXPECT_EQ(UsageRecords::InstanceKey(RequestOf("i", {"a", "bc"})),
            UsageRecords::InstanceKey(RequestOf("i", {"ab", "c"})));
  EXPECT_NE(UsageRecords::InstanceKey(RequestOf("i", {"a", "b"})),
            UsageRecords::InstanceKey(RequestOf("i", {"b", "a"})));
  EXPECT_EQ(UsageRecords::InstanceKey(RequestOf("foo", {"\x80\xff"})), "cdc0e7afa58a93be");
  for (const RequestData& request :
       {RequestOf("", {"b"}), RequestOf("a", {}), RequestOf("a", {"", ""}), RequestOf("", {})}) {
    EXPECT_EQ(UsageRecords::InstanceKey(request), "");
  }
}

TEST_F(UsageRecordsTest, ARequestWithoutAKeyIsRefusedAndLeavesNoTrace) {
  EXPECT_EQ(Apply(RequestOf("a", {}, {.maxCameras = 1})), UsageRecords::NoInstanceKey);
  EXPECT_EQ(log.Lines(),
            std::vector{ErrorLine("UsageRecords::ApplyRequest", "Error 0x442:: something wrong\n")});
  EXPECT_EQ(records.TotalCameras(), 0U);
  EXPECT_EQ(records.Totals(), UsageCounts());
}

TEST_F(UsageRecordsTest, ARequestIsStampedAndPrintedLineByLine) {
  RequestData request = RequestOf("a", {"b"}, {.maxCameras = 4, .numFaceTier2 = 7});
  EXPECT_EQ(records.ApplyRequest(request), UsageRecords::Stored);
  EXPECT_EQ(request.timeStamp, 1000);

  const std::vector<std::string> labels{
      "MaxCameras    ", "numAbandoned  ", "numCrossing   ", "numAnomaly    ", "numClassTier0 ",
      "numClassTier1 ", "numClassTier2 ", "numClassTier3 ", "numPerimeter  ", "numPX         ",
      "numPlates     ", "numGenerative ", "numRemoteTier1", "numRemoteTier2", "numRemoteTier3",
      "numRemoteTier4", "numFaceTier1  ", "numFaceTier2  "};
  std::vector<LogLine> expected;
  const auto expect = [&](const char* function, const std::string& text) {
    expected.push_back(InfoLine(std::string("UsageRecords::") + function, text));
  };
  const auto figure = [](const std::string& label) {
    return label == "MaxCameras    " ? "4" : label == "numFaceTier2  " ? "7" : "0";
  };
  expect("PrintRequestDetails", "==================== DETECT NEW REQUEST - 1000 ====================");
  for (const auto& label : labels) expect("PrintRequestDetails", label + ": required: " + figure(label));
  expect("PrintRequestDetails", "numNeuralPack : required: 0");
  expect("PrintRequestDetails", "============================================================");
  expect("PrintStatus", "******** UGS version 2025.3.0-3380 **************");
  expect("PrintStatus", "-------------------1000-----------------------------");
  for (const auto& label : labels) {
    if (label == "numPX         ") expect("PrintStatus", "numNeuralPack : in use: 0");
    expect("PrintStatus", label + ": in use: " + figure(label));
  }
  expect("PrintStatus", "----------------------------------------------------");
  EXPECT_EQ(log.Lines(), expected);
}

TEST_F(UsageRecordsTest, TheNeuralPackLineNeedsAnotherFeatureInUse) {
  const auto required = [this](UsageCounts counts) {
    log.Clear();
    Apply(RequestOf("a", {"b"}, counts));
    return std::ranges::any_of(log.Texts(),
                               [](const auto& text) { return text.starts_with("numNeuralPack : required"); });
  };
  EXPECT_FALSE(required({}));
  EXPECT_FALSE(required({.numSpare1 = 1, .numSpare2 = 1, .numDwell = 1, .numNeuralPack = 1}));
  EXPECT_TRUE(required({.numCollision = 1}));
  EXPECT_TRUE(required({.numPX = 1}));
}

TEST_F(UsageRecordsTest, ALaterReportReplacesTheEarlierOneWhole) {
  Apply(RequestOf("a", {"1"}, {.maxCameras = 10, .numDwell = 3}));
  Apply(RequestOf("b", {"1"}, {.maxCameras = 5}));
  RequestData again = RequestOf("a", {"1"}, {.maxCameras = 2});
  again.dockerId = "another";
  log.Clear();
  Apply(again);
  EXPECT_EQ(log.Count("MaxCameras    : required: 7"), 1U);
  EXPECT_EQ(log.Count("MaxCameras    : in use: 7"), 1U);
  EXPECT_EQ(records.Totals(), UsageCounts{.maxCameras = 7});
  EXPECT_EQ(records.TotalCameras(), 7U);
  Apply(RequestOf("a", {"1", "2"}, {.maxCameras = 1}));  // other cameras, another record
  EXPECT_EQ(records.TotalCameras(), 8U);
}

TEST_F(UsageRecordsTest, SumsWrapAt32BitsButCamerasAreCountedIn64) {
  const std::uint32_t most = std::numeric_limits<std::uint32_t>::max();
  Apply(RequestOf("a", {"1"}, {.maxCameras = most, .numPX = most}));
  Apply(RequestOf("b", {"1"}, {.maxCameras = most, .numPX = 2}));
  EXPECT_EQ(Figure("MaxCameras"), most - 1);
  EXPECT_EQ(Figure("numPX"), 1U);
  EXPECT_EQ(records.TotalCameras(), 2 * std::uint64_t{most});
}

TEST_F(UsageRecordsTest, ARecordExpiresOnlyPastTheTimeout) {
  Apply(RequestOf("a", {"b"}, {.maxCameras = 3}));
  clock.now = 1120;
  EXPECT_TRUE(Sweep().empty());
  clock.now = 1121;
  const auto texts = Sweep();
  ASSERT_EQ(texts.size(), 23U);
  EXPECT_EQ(log.Lines()[0],
            InfoLine("UsageRecords::CheckTimeStamp",
                     "Deleting korvane 89c4407b545986a as no new update after 121 seconds\n"));
  EXPECT_EQ(texts[1], "******** UGS version 2025.3.0-3380 **************");
  EXPECT_EQ(Figure("MaxCameras"), 0U);
  EXPECT_EQ(records.Totals(), UsageCounts());
  EXPECT_TRUE(Sweep().empty());
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
           {1000, 880, false},           // 120 s in the future
           {1000, 879, true},            // 121 s in the future
           {-1, 100000, false},          // the mark of a record that was never stamped
           {most, least + 50, false},    // 51 s, over the end of 32-bit time
           {most, least + 500, true},    //
           {1000, least + 1000, false},  // exactly 2^31 s: the distance stays negative
           {1000, least + 1001, true},   //
       }) {
    clock.now = c.stamped;
    Apply(RequestOf("a", {"b"}));
    clock.now = c.now;
    EXPECT_EQ(!Sweep().empty(), c.expires) << c.stamped << " " << c.now;
    clock.now = 5000;
    Apply(RequestOf("a", {"b"}));
    clock.now = 6000;
    Sweep();
  }
}

TEST_F(UsageRecordsTest, ASweepDeletesInKeyOrderAndPrintsOneStatus) {
  std::vector<std::string> expected;
  for (const char* id : {"x", "y", "z", "w"}) {
    Apply(RequestOf(id, {"1"}, {.numPlates = 1}));
    expected.push_back("Deleting korvane " + UsageRecords::InstanceKey(RequestOf(id, {"1"})) +
                       " as no new update after 200 seconds\n");
  }
  clock.now = 1150;
  Apply(RequestOf("stays", {"1"}, {.numPlates = 5}));
  clock.now = 1200;
  const auto texts = Sweep();
  std::ranges::sort(expected);
  EXPECT_EQ(std::vector(texts.begin(), texts.begin() + 4), expected);
  EXPECT_EQ(texts.size(), 4U + 22U);
  EXPECT_EQ(Figure("numPlates"), 5U);
  EXPECT_EQ(records.Totals(), UsageCounts{.numPlates = 5});
}

TEST_F(UsageRecordsTest, AReportBeforeExpiryStartsTheSilenceAnew) {
  Apply(RequestOf("a", {"b"}));
  clock.now = 1120;
  Apply(RequestOf("a", {"b"}));
  clock.now = 1240;
  EXPECT_TRUE(Sweep().empty());
}

}  // namespace
