#include "JsonReader.h"

#include <gtest/gtest.h>
#include <rapidjson/document.h>

#include <limits>
#include <string>

namespace {

bool Parses(std::string_view text) {
  rapidjson::Document document;
  const bool parsed = ParseJson(text, document);
  EXPECT_EQ(parsed, !document.IsNull() || text == "null") << text.substr(0, 80);
  return parsed;
}

std::string Nested(std::size_t depth) {
  return std::string(depth, '[') + std::string(depth, ']');
}

TEST(JsonReaderTest, AcceptsJsonAndRefusesEverythingElse) {
  for (const char* text :
       {"{}", "[]", "null", "7", "\"x\"", " {\"a\":[1,{\"b\":null}]} ", "\xEF\xBB\xBF{}"}) {
    EXPECT_TRUE(Parses(text)) << text;
  }
  for (const char* text : {"", " ", "{", "}", "{}{}", "{hello}", "{\"a\":}", "[1,]", "01", "+1", "1e", "nan",
                           "-", "\"", "{\"a\" 1}", "1e999", "\"\\ud800\""}) {
    EXPECT_FALSE(Parses(text)) << text;
  }
}

TEST(JsonReaderTest, NestingPastTheLimitIsRefusedWithoutRecursion) {
  EXPECT_TRUE(Parses(Nested(512)));
  EXPECT_FALSE(Parses(Nested(513)));
  EXPECT_FALSE(Parses(std::string(2'000'000, '[')));
  std::string objects;
  for (int i = 0; i < 400'000; ++i) objects += "{\"a\":";
  EXPECT_FALSE(Parses(objects));
}

TEST(JsonReaderTest, ManySiblingsDoNotCountAsDepth) {
  std::string siblings = "[{}";
  for (int i = 0; i < 2000; ++i) siblings += ",[],{\"a\":[]}";
  EXPECT_TRUE(Parses(siblings + "]"));
}

TEST(JsonReaderTest, TextOverTwoGibibytesIsRefusedUnread) {
  const std::string little = "{}";
  const std::string_view huge(little.data(), std::size_t{std::numeric_limits<std::int32_t>::max()} + 1);
  rapidjson::Document document;
  EXPECT_FALSE(ParseJson(huge, document));
}

TEST(JsonReaderTest, NumbersKeepTheirType) {
  rapidjson::Document document;
  ASSERT_TRUE(
      ParseJson("[0,-0,-1,4294967296,9223372036854775808,18446744073709551615,-9223372036854775808,"
                "18446744073709551616,1.5,1e2,-9223372036854775809]",
                document));
  EXPECT_TRUE(document[0].IsInt() && document[1].IsInt());
  EXPECT_EQ(document[2].GetInt(), -1);
  EXPECT_EQ(document[3].GetInt64(), 4294967296);
  EXPECT_EQ(document[4].GetUint64(), 9223372036854775808U);
  EXPECT_EQ(document[5].GetUint64(), 18446744073709551615U);
  EXPECT_EQ(document[6].GetInt64(), std::numeric_limits<std::int64_t>::min());
  for (rapidjson::SizeType i = 7; i < document.Size(); ++i) EXPECT_TRUE(document[i].IsDouble()) << i;
  EXPECT_EQ(document[8].GetDouble(), 1.5);
  EXPECT_EQ(document[9].GetDouble(), 100);
}

TEST(JsonReaderTest, HostileExponentsAreHarmless) {
  rapidjson::Document document;
  ASSERT_TRUE(ParseJson("{\"a\":0.00000000000000001e-2147483639}", document));
  EXPECT_EQ(document["a"].GetDouble(), 0);
  for (const char* number :
       {"1e-2147483648", "1e-99999999999999999999", "123456789012345678901234567890e-400", "0.1e-308",
        "4.9e-324", "1.7976931348623157e308", "1.8e308"}) {
    EXPECT_TRUE(Parses(number)) << number;
  }
  EXPECT_TRUE(Parses("0." + std::string(100'000, '0') + "1"));
  Parses("0." + std::string(100'000, '0') + "1e100000");  // either answer will do
}

TEST(JsonReaderTest, ADocumentWithNulBytesIsReadToItsEndOnly) {
  using namespace std::string_view_literals;
  EXPECT_TRUE(Parses("{\"a\":\"x\\u0000y\"}"sv));
  EXPECT_FALSE(Parses("{\"a\0\":1"sv));
}

}  // namespace
