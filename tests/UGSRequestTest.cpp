#include "UGSRequest.h"

#include <gtest/gtest.h>
#include <rapidjson/document.h>

#include <bit>

#include "JsonReader.h"
#include "TestSupport.h"
#include "UgsClient.h"

namespace {

using RequestData = UGSRequest::RequestData;
using UGSDefs::Failed;
using UGSDefs::Ok;

// Which message each malformed document causes stands in docs/vectors, and is tested with them.
class UGSRequestTest : public testing::Test {
 protected:
  UGSDefs::ReplyCode Parse(const std::string& text) {
    rapidjson::Document document;
    EXPECT_TRUE(ParseJson(text, document)) << text;
    return UGSRequest::Parse(document, request);
  }

  CapturedLog log;
  RequestData request;
};

TEST_F(UGSRequestTest, EachLayoutFillsItsCountsInTheRecordsOrder) {
  // The slot of the record that each key fills, in reading order.
  const std::map<std::string, std::size_t> slots{
      {"MaxCameras", 0},   {"ABD", 1},          {"CR", 2},           {"AN", 3},           {"ClassTier1", 6},
      {"ClassTier0", 7},   {"ClassTier2", 8},   {"ClassTier3", 9},   {"Perimeter", 10},   {"Dwell", 11},
      {"Collision", 12},   {"NeuralPack", 13},  {"PX", 14},          {"Plates", 15},      {"Generative", 16},
      {"RemoteTier1", 17}, {"RemoteTier2", 18}, {"RemoteTier3", 19}, {"RemoteTier4", 20}, {"FaceTier1", 21},
      {"FaceTier2", 22}};
  for (const std::string& layout : ugs::LayoutNames()) {
    DocumentText document{.layout = layout};
    CountSlots expected{};
    for (const std::string& key : ugs::CountKeys(layout)) {
      const std::size_t slot = slots.at(key);
      expected[slot] = static_cast<std::uint32_t>(100 + slot);
      document.raw[key] = std::to_string(expected[slot]);
    }
    EXPECT_EQ(Parse(document.Write()), Ok) << layout;
    EXPECT_EQ(std::bit_cast<CountSlots>(request.counts), expected) << layout;
    EXPECT_EQ(request.korvaneId, "id");
    EXPECT_EQ(request.dockerId, "docker");
    EXPECT_EQ(request.camRtspUrls, std::vector<std::string>{"rtsp://camera"});
    EXPECT_EQ(request.timeStamp, -1);
    EXPECT_TRUE(log.Lines().empty());
  }
}

TEST_F(UGSRequestTest, ADocumentThatIsNoObjectFails) {
  for (const char* text : {"[]", "null", "7", "\"v6\""}) EXPECT_EQ(Parse(text), Failed) << text;
  EXPECT_EQ(log.Count("Error 0x476:: invalid data\n"), 4U);
}

TEST_F(UGSRequestTest, CountsOfALaterLayoutAreIgnored) {
  DocumentText document{.layout = "v6", .raw = {{"PX", "9"}, {"MaxCameras", "1"}}};
  const std::string text = document.Write();
  EXPECT_EQ(Parse(text.substr(6, text.size() - 7)), Ok);  // the v6 request itself, at the top level
  EXPECT_EQ(request.counts, UsageCounts{.maxCameras = 1});
}

TEST_F(UGSRequestTest, ACountTakesItsLow32BitsAndAnythingElseIsZero) {
  const std::map<std::string, std::uint32_t> cases{{"7", 7},
                                                   {"-1", 4294967295},
                                                   {"4294967295", 4294967295},
                                                   {"4294967298", 2},
                                                   {"-4294967295", 1},
                                                   {"1.5", 0},
                                                   {"1e3", 0},
                                                   {"\"7\"", 0},
                                                   {"null", 0},
                                                   {"[7]", 0},
                                                   {"{}", 0},
                                                   {"true", 0},
                                                   {"18446744073709551615", 4294967295},
                                                   {"99999999999999999999", 0},
                                                   {"-0", 0}};
  for (const auto& [text, expected] : cases) {
    EXPECT_EQ(Parse(DocumentText{.raw = {{"MaxCameras", text}, {"FaceTier2", text}}}.Write()), Ok) << text;
    EXPECT_EQ(request.counts.maxCameras, expected) << text;
    EXPECT_EQ(request.counts.numFaceTier2, expected) << text;
  }
}

TEST_F(UGSRequestTest, AStringOfTheWrongTypeIsDefinedAndNotEmpty) {
  const std::map<std::string, std::string> cases{{"\"x\"", "x"},
                                                 {"\"x\\u0000y\"", "x"},
                                                 {"12", "12"},
                                                 {"-12", "-12"},
                                                 {"1.5", "1.5"},
                                                 {"18446744073709551615", "18446744073709551615"},
                                                 {"null", "(not a string)"},
                                                 {"true", "(not a string)"},
                                                 {"{}", "(not a string)"},
                                                 {"[1]", "(not a string)"}};
  for (const auto& [text, expected] : cases) {
    const DocumentText document{
        .raw = {{"KorvaneID", text}, {"DockerID", text}, {"CamRtspUrls", "[" + text + ",\"b\"]"}}};
    EXPECT_EQ(Parse(document.Write()), Ok) << text;
    EXPECT_EQ(request.korvaneId, expected);
    EXPECT_EQ(request.dockerId, expected);
    EXPECT_EQ(request.camRtspUrls, (std::vector<std::string>{expected, "b"}));
  }
}

TEST_F(UGSRequestTest, NothingOfAnEarlierRequestIsLeftInTheRecord) {
  ASSERT_EQ(Parse(DocumentText{.raw = {{"FaceTier1", "5"}}}.Write()), Ok);
  ASSERT_EQ(Parse(DocumentText{.layout = "legacy", .raw = {{"CamRtspUrls", "[]"}}}.Write()), Ok);
  EXPECT_TRUE(request.camRtspUrls.empty());
  EXPECT_EQ(request.counts, UsageCounts());
}

}  // namespace
