#include <gtest/gtest.h>
#include <rapidjson/document.h>

#include <bit>
#include <limits>
#include <map>
#include <stdexcept>
#include <string>

#include "JsonReader.h"
#include "TestSupport.h"
#include "UGSRequest.h"
#include "UgsClient.h"

namespace {

bool Parses(std::string_view text) {
  rapidjson::Document document;
  const bool parsed = ParseJson(text, document);
  EXPECT_EQ(parsed, !document.IsNull() || text == "null") << text.substr(0, 80);
  return parsed;
}

std::string Repeated(std::size_t times, const std::string& text) {
  std::string all;
  for (std::size_t i = 0; i < times; ++i) all += text;
  return all;
}

TEST(JsonReaderTest, AcceptsJsonAndRefusesEverythingElse) {
  using namespace std::string_view_literals;
  for (const auto text : {"{}"sv, "[]"sv, "null"sv, "7"sv, "\"x\""sv, " {\"a\":[1,{\"b\":null}]} "sv,
                          "\xEF\xBB\xBF{}"sv, "{\"a\":\"x\\u0000y\"}"sv}) {
    EXPECT_TRUE(Parses(text)) << text;
  }
  for (const auto text :
       {""sv,     " "sv,         "{"sv,     "}"sv,     "{}{}"sv,        "{hello}"sv,   "{\"a\":}"sv,
        "[1,]"sv, "01"sv,        "+1"sv,    "1."sv,    "1e"sv,          "-"sv,         "nan"sv,
        "\""sv,   "{\"a\" 1}"sv, "1e999"sv, "1e309"sv, "\"\\ud800\""sv, "{\"a\0\":1"sv}) {
    EXPECT_FALSE(Parses(text)) << text;
  }
}

TEST(JsonReaderTest, NestingPastTheLimitIsRefusedWithoutRecursion) {
  const auto nests = [](std::size_t depth, const std::string& begin, const std::string& end) {
    return Parses(Repeated(depth, begin) + "0" + Repeated(depth, end));
  };
  EXPECT_TRUE(nests(512, "[", "]"));
  EXPECT_FALSE(nests(513, "[", "]"));
  EXPECT_TRUE(nests(512, "{\"a\":", "}"));
  EXPECT_FALSE(nests(513, "{\"a\":", "}"));
  EXPECT_FALSE(Parses(std::string(2'000'000, '[')));
  EXPECT_FALSE(Parses(Repeated(400'000, "{\"a\":")));
  EXPECT_TRUE(Parses("[{}" + Repeated(2000, ",[],{\"a\":[]}") + "]"));  // siblings are no depth
}

TEST(JsonReaderTest, TextOverTwoGibibytesIsRefusedUnread) {
  const std::string little = "{}";
  const std::string_view huge(little.data(), std::size_t{std::numeric_limits<std::int32_t>::max()} + 1);
  rapidjson::Document document;
  EXPECT_FALSE(ParseJson(huge, document));
}

TEST(JsonReaderTest, HostileExponentsAreHarmless) {
  rapidjson::Document document;
  ASSERT_TRUE(ParseJson("{\"a\":0.00000000000000001e-2147483639}", document));
  EXPECT_EQ(document["a"].GetDouble(), 0);
  for (const char* number :
       {"1e-2147483648", "1e-99999999999999999999", "123456789012345678901234567890e-400", "0.1e-308",
        "4.9e-324", "1e-400", "1.7976931348623157e308", "1.8e308"}) {
    EXPECT_TRUE(Parses(number)) << number;
  }
  EXPECT_TRUE(Parses("0." + std::string(100'000, '0') + "1"));
  Parses("0." + std::string(100'000, '0') + "1e100000");  // either answer will do
}

using UGSDefs::Failed;
using UGSDefs::Ok;

using Values = std::map<std::string, std::string>;

// A document of `layout` with other JSON texts for some members.
std::string Document(const std::string& layout, const Values& values = {}) {
  std::string text =
      ugs::WriteDocument({.id = "id", .container = "docker", .cameras = {"camera"}, .layout = layout});
  for (const auto& [key, value] : values) {
    const std::size_t begin = text.find('"' + key + "\":") + key.size() + 3;
    text.replace(begin, text.find_first_of(",}", begin) - begin, value);
  }
  return text;
}

// What the parser says to malformed documents stands in docs/vectors, and is tested with them.
class UGSRequestTest : public testing::Test {
 protected:
  UGSDefs::ReplyCode Parse(const std::string& text) {
    rapidjson::Document document;
    EXPECT_TRUE(ParseJson(text, document)) << text;
    return UGSRequest::Parse(document, request);
  }

  CapturedLog log;
  UGSRequest::RequestData request;
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
    Values values;
    ugs::CountSlots expected{};
    for (const std::string& key : ugs::CountKeys(layout)) {
      const std::size_t slot = slots.at(key);
      expected[slot] = static_cast<std::uint32_t>(100 + slot);
      values[key] = std::to_string(expected[slot]);
    }
    EXPECT_EQ(Parse(Document(layout, values)), Ok) << layout;
    EXPECT_EQ(std::bit_cast<ugs::CountSlots>(request.counts), expected) << layout;
    EXPECT_EQ(request.korvaneId, "id");
    EXPECT_EQ(request.dockerId, "docker");
    EXPECT_EQ(request.camRtspUrls, std::vector<std::string>{"camera"});
    EXPECT_EQ(request.timeStamp, -1);
    EXPECT_TRUE(log.Lines().empty());
  }
}

TEST_F(UGSRequestTest, OfSeveralLayoutsTheNewestCountsWhereverItStands) {
  for (const auto& [newer, older] : {std::pair("v6", "v5"), {"v6", "v4"}, {"v5", "v4"}}) {
    const std::string one = Document(newer, {{"MaxCameras", "1"}});
    const std::string two = Document(older, {{"MaxCameras", "2"}});
    const auto join = [](const std::string& first, const std::string& second) {
      return first.substr(0, first.size() - 1) + "," + second.substr(1);
    };
    for (const std::string& both : {join(one, two), join(two, one)}) {
      EXPECT_EQ(Parse(both), Ok);
      EXPECT_EQ(request.counts.maxCameras, 1U) << both;
    }
  }
}

TEST_F(UGSRequestTest, AMissingCountIsLoggedByTheParserOfItsLayout) {
  for (const auto& [layout, key, line] :
       {std::tuple("legacy", "NeuralPack", "UGSRequest::ParseLegacy: error 0xE246"),
        {"v4", "PX", "ParseV4: error 0xE247"},
        {"v5", "RemoteTier1", "ParseV5: error 0xE251"},
        {"v6", "FaceTier1", "ParseV6: error 0xE261"}}) {
    std::string text = Document(layout);
    text.replace(text.find(key), 1, "?");
    log.Clear();
    EXPECT_EQ(Parse(text), Failed);
    EXPECT_EQ(log.Lines(), std::vector{"error " + std::string(line) + ":: could not read data content\n"});
  }
}

TEST_F(UGSRequestTest, ACountTakesItsLow32BitsAndAnythingElseIsZero) {
  const std::map<std::string, std::uint32_t> cases{{"7", 7},
                                                   {"-1", 4294967295},
                                                   {"4294967295", 4294967295},
                                                   {"4294967298", 2},
                                                   {"-4294967295", 1},
                                                   {"18446744073709551615", 4294967295},
                                                   {"1.5", 0},
                                                   {"1e3", 0},
                                                   {"99999999999999999999", 0},
                                                   {"\"7\"", 0},
                                                   {"null", 0},
                                                   {"[7]", 0},
                                                   {"{}", 0},
                                                   {"9223372036854775809", 1},
                                                   {"-9223372036854775807", 1},
                                                   {"-9223372036854775809", 0},
                                                   {"1E+2", 0},
                                                   {"true", 0},
                                                   {"-0", 0}};
  for (const auto& [text, expected] : cases) {
    EXPECT_EQ(Parse(Document("v6", {{"MaxCameras", text}, {"FaceTier2", text}})), Ok) << text;
    EXPECT_EQ(request.counts, (ugs::UsageCounts{.maxCameras = expected, .numFaceTier2 = expected})) << text;
  }
}

TEST_F(UGSRequestTest, AStringOfTheWrongTypeIsDefinedAndNotEmpty) {
  const Values cases{{"\"x\"", "x"},
                     {"\"x\\u0000y\"", "x"},
                     {"-12", "-12"},
                     {"-0.0", "-0"},
                     {"1E+2", "100"},
                     {"1.5", "1.5"},
                     {"18446744073709551615", "18446744073709551615"},
                     {"null", "(not a string)"},
                     {"true", "(not a string)"},
                     {"{}", "(not a string)"},
                     {"[1]", "(not a string)"}};
  for (const auto& [text, expected] : cases) {
    const Values values{{"KorvaneID", text}, {"DockerID", text}, {"CamRtspUrls", "[" + text + ",\"b\"]"}};
    EXPECT_EQ(Parse(Document("v6", values)), Ok) << text;
    EXPECT_EQ(request.korvaneId, expected);
    EXPECT_EQ(request.dockerId, expected);
    EXPECT_EQ(request.camRtspUrls, (std::vector<std::string>{expected, "b"}));
  }
}

TEST_F(UGSRequestTest, NothingOfAnEarlierRequestIsLeftInTheRecord) {
  ASSERT_EQ(Parse(Document("v6", {{"FaceTier1", "5"}})), Ok);
  ASSERT_EQ(Parse(Document("legacy", {{"CamRtspUrls", "[]"}})), Ok);
  EXPECT_TRUE(request.camRtspUrls.empty());
  EXPECT_EQ(request.counts, ugs::UsageCounts());
}

TEST(ReadDocumentTest, GivesBackWhatWasWritten) {
  for (const std::string& layout : ugs::LayoutNames()) {
    ugs::Usage usage{
        .id = "h\xC3\xA4ll\n7", .container = "\"d\"", .cameras = {"a", "", "b"}, .layout = layout};
    std::uint32_t count = std::numeric_limits<std::uint32_t>::max();
    for (const std::string& key : ugs::CountKeys(layout)) usage.counts[key] = count--;
    const std::string document = ugs::WriteDocument(usage);
    EXPECT_EQ(ugs::WriteDocument(ugs::ReadDocument(document)), document);
  }
  const ugs::Usage least =
      ugs::ReadDocument(R"( {"v5": {"CamRtspUrls": ["c"], "KorvaneID": "i", "InUse": {}}} )");
  EXPECT_EQ(ugs::WriteDocument(least), ugs::WriteDocument({.id = "i", .cameras = {"c"}, .layout = "v5"}));
}

TEST(ReadDocumentTest, SaysWhatIsWrongWithADocument) {
  const auto inUse = [](const std::string& counts) {
    return R"({"v6":{"KorvaneID":"i","CamRtspUrls":["c"],"InUse":{)" + counts + "}}}";
  };
  const std::map<std::string, std::string> cases{
      {"", "at offset 0: The document is empty."},
      {R"({"v6":1} x)", "v6 must be an object, not 1"},
      {inUse("") + "x", "at offset 55: The document root must not be followed by other values."},
      {inUse("") + '\0', "at offset 55: a NUL byte"},
      {Repeated(100'000, "["), "the document is no object"},
      {"{}", "the document is empty"},
      {R"({"v7":{}})", "there is no member \"v7\" here; did you mean v6?"},
      {R"({"legacy":{}})", "there is no member \"legacy\" here; did you mean InUse?"},
      {R"({"v6":{"v6":{}}})", "there is no member \"v6\" here; did you mean InUse?"},
      {R"({"v6":{"korvaneid":"i"}})", "there is no member \"korvaneid\" here; did you mean KorvaneID?"},
      {R"({"v6":{},"v5":{}})", "v5 does not belong beside layout v6"},
      {R"({"v6":{},"InUse":{}})", "InUse does not belong beside layout v6"},
      {R"({"InUse":{},"v4":{}})", "v4 does not belong beside layout legacy"},
      {R"({"InUse":{},"InUse":{}})", "InUse is there twice"},
      {R"({"v6":{"InUse":{}}})", "KorvaneID is missing"},
      {R"({"KorvaneID":"i"})", "CamRtspUrls is missing"},
      {R"({"KorvaneID":"i","CamRtspUrls":[""]})", "CamRtspUrls holds no URL"},
      {R"({"KorvaneID":"","CamRtspUrls":["c"]})", "KorvaneID is empty"},
      {R"({"KorvaneID":"a\u0000b"})", "KorvaneID holds a NUL byte"},
      {"{\"KorvaneID\":\"\xFF\"}", "at offset 14: Invalid encoding in string."},
      {R"({"KorvaneID":"\ud800"})", "at offset 14: The surrogate pair in string is invalid."},
      {R"({"KorvaneID":7})", "KorvaneID must be a string, not 7"},
      {R"({"DockerID":null})", "DockerID must be a string, not null"},
      {R"({"CamRtspUrls":"c"})", "CamRtspUrls must be an array of strings, not a string"},
      {R"({"CamRtspUrls":[["c"]]})", "CamRtspUrls must be an array of strings, not an array"},
      {R"({"InUse":[]})", "InUse must be an object, not an array"},
      {inUse(R"("PX":-1)"), "count PX is -1, not from 0 to 4294967295"},
      {inUse(R"("PX":4294967296)"), "count PX is 4294967296, not from 0 to 4294967295"},
      {inUse(R"("PX":1.0)"), "count PX is 1.0, not from 0 to 4294967295"},
      {inUse(R"("PX":true)"), "count PX is true, not from 0 to 4294967295"},
      {inUse(R"("PX":"7")"), "count PX is a string, not from 0 to 4294967295"},
      {inUse(R"("PX":1,"PX":2)"), "PX is there twice"}};
  for (const auto& [document, text] : cases) {
    try {
      ugs::ReadDocument(document);
      ADD_FAILURE() << document;
    } catch (const std::invalid_argument& error) {
      EXPECT_EQ(error.what(), text) << document;
    }
  }
  EXPECT_THROW(ugs::ReadDocument(R"({"v4":{"InUse":{"FaceTier1":1}}})"), std::invalid_argument);
}

}  // namespace
