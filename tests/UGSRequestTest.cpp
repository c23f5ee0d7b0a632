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

class UGSRequestTest : public testing::Test {
 protected:
  UGSDefs::ReplyCode Parse(const std::string& text) {
    rapidjson::Document document;
    EXPECT_TRUE(ParseJson(text, document)) << text;
    log.Clear();
    testing::internal::CaptureStdout();
    const auto code = UGSRequest::Parse(document, request);
    console = testing::internal::GetCapturedStdout();
    return code;
  }

  CapturedLog log;
  RequestData request;
  std::string console;
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
    UsageCounts::Slots expected{};
    for (const std::string& key : ugs::CountKeys(layout)) {
      const std::size_t slot = slots.at(key);
      expected[slot] = static_cast<std::uint32_t>(100 + slot);
      document.raw[key] = std::to_string(expected[slot]);
    }
    EXPECT_EQ(Parse(document.Write()), Ok) << layout;
    EXPECT_EQ(std::bit_cast<UsageCounts::Slots>(request.counts), expected) << layout;
    EXPECT_EQ(request.korvaneId, "id");
    EXPECT_EQ(request.dockerId, "docker");
    EXPECT_EQ(request.camRtspUrls, std::vector<std::string>{"rtsp://camera"});
    EXPECT_EQ(request.timeStamp, -1);
    EXPECT_TRUE(log.Lines().empty());
  }
}

TEST_F(UGSRequestTest, AMissingMemberFailsWithItsOwnLine) {
  struct Case {
    const char* layout;
    const char* without;
    const char* function;
    const char* code;
  };
  const char* legacy = "UGSRequest::ParseLegacy";
  for (const Case& c : std::initializer_list<Case>{
           {"legacy", "DockerID", legacy, "0xE126"},
           {"legacy", "CamRtspUrls", legacy, "0xE146"},
           {"legacy", "MaxCameras", legacy, "0xE209"},
           {"legacy", "ABD", legacy, "0xE220"},
           {"v6", "AN", legacy, "0xE230"},
           {"legacy", "CR", legacy, "0xE235"},
           {"legacy", "ClassTier1", legacy, "0xE240"},
           {"legacy", "ClassTier2", legacy, "0xE241"},
           {"v5", "ClassTier3", legacy, "0xE242"},
           {"legacy", "Perimeter", legacy, "0xE243"},
           {"legacy", "Dwell", legacy, "0xE244"},
           {"legacy", "Collision", legacy, "0xE245"},
           {"legacy", "NeuralPack", legacy, "0xE246"},
           {"v4", "PX", "ParseV4", "0xE247"},
           {"v4", "Plates", "ParseV4", "0xE248"},
           {"v6", "Generative", "ParseV4", "0xE249"},
           {"v4", "ClassTier0", "ParseV4", "0xE24A"},
           {"v5", "RemoteTier1", "ParseV5", "0xE251"},
           {"v5", "RemoteTier2", "ParseV5", "0xE252"},
           {"v6", "RemoteTier3", "ParseV5", "0xE253"},
           {"v5", "RemoteTier4", "ParseV5", "0xE254"},
           {"v6", "FaceTier1", "ParseV6", "0xE261"},
           {"v6", "FaceTier2", "ParseV6", "0xE262"},
       }) {
    EXPECT_EQ(Parse(DocumentText{.layout = c.layout, .without = c.without}.Write()), Failed) << c.without;
    const std::string text = std::string("error ") + c.code + ":: could not read data content\n";
    EXPECT_EQ(log.Lines(), std::vector{ErrorLine(c.function, text)});
    EXPECT_EQ(console, "");
  }
}

TEST_F(UGSRequestTest, AMissingIdentityIsTheOneLineWithoutANewline) {
  EXPECT_EQ(Parse(DocumentText{.without = "KorvaneID"}.Write()), Failed);
  EXPECT_EQ(log.Lines(),
            std::vector{ErrorLine("UGSRequest::ParseLegacy", "error 0xE099:: could not read data content")});
}

TEST_F(UGSRequestTest, MissingInUseGoesToTheConsoleAlone) {
  EXPECT_EQ(Parse(DocumentText{.without = "InUse"}.Write()), Failed);
  EXPECT_EQ(console, "error 0xE216:: could not read data content\n");
  EXPECT_TRUE(log.Lines().empty());
}

TEST_F(UGSRequestTest, AContainerOfTheWrongTypeFails) {
  const auto failsWith = [this](const std::string& text, const char* function, const char* line) {
    EXPECT_EQ(Parse(text), Failed) << text;
    EXPECT_EQ(log.Lines(), std::vector{ErrorLine(function, line)}) << text;
  };
  for (const char* text : {"[]", "null", "7", "\"v6\""}) {
    failsWith(text, "UGSRequest::Parse", "Error 0x476:: invalid data\n");
  }
  for (const char* text : {"{\"v5\":7}", "{\"v4\":[]}", "{\"v6\":null}"}) {
    failsWith(text, "UGSRequest::ParseLegacy", "Error 0x476:: invalid data\n");
  }
  failsWith(DocumentText{.raw = {{"CamRtspUrls", "\"rtsp://camera\""}}}.Write(), "UGSRequest::ParseLegacy",
            "error 0xE140:: could not read data content\n");
  failsWith(DocumentText{.raw = {{"InUse", "[]"}}}.Write(), "UGSRequest::ParseLegacy",
            "error 0xE210:: could not read data content\n");
}

TEST_F(UGSRequestTest, TheNewestLayoutPresentWinsBeforeItsTypeIsSeen) {
  const std::string v6 = DocumentText{.layout = "v6", .raw = {{"MaxCameras", "6"}}}.Write();
  const std::string v4 = DocumentText{.layout = "v4", .raw = {{"MaxCameras", "4"}}}.Write();
  const std::string both = v4.substr(0, v4.size() - 1) + "," + v6.substr(1);
  EXPECT_EQ(Parse(both), Ok);
  EXPECT_EQ(request.counts.maxCameras, 6U);

  EXPECT_EQ(Parse(v4.substr(0, v4.size() - 1) + ",\"v5\":1}"), Failed);

  std::string upperCase = v6;
  upperCase.replace(upperCase.find("v6"), 2, "V6");
  EXPECT_EQ(Parse(upperCase), Failed);
  EXPECT_EQ(log.Count("error 0xE099:: could not read data content"), 1U);
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
