#include "JsonReader.h"

#include <rapidjson/document.h>
#include <rapidjson/encodedstream.h>
#include <rapidjson/memorystream.h>
#include <rapidjson/reader.h>

#include <charconv>
#include <cstdint>
#include <limits>

namespace {

// No layout needs more than four levels; the limit bounds the parser's stack.
constexpr int kMaxDepth = 512;

// The parser stacks up to 26 bytes per input byte and counts them in 32 bits.
constexpr std::size_t kMaxText = std::numeric_limits<std::int32_t>::max() - 1;

// Reading numbers as strings keeps the parser from converting them: its conversion indexes a table with an
// exponent that the text chose.
constexpr unsigned kFlags = rapidjson::kParseIterativeFlag | rapidjson::kParseNumbersAsStringsFlag;

template <typename Number>
bool Convert(const char* text, rapidjson::SizeType length, Number& number) {
  const auto [end, error] = std::from_chars(text, text + length, number);
  return error == std::errc() && end == text + length;
}

// Passes the parser's events on to a document, with numbers converted here and the depth watched.
class DocumentBuilder {
 public:
  explicit DocumentBuilder(rapidjson::Document& document) : document_(document) {}

  bool Null() { return document_.Null(); }
  bool Bool(bool value) { return document_.Bool(value); }
  bool Int(int value) { return document_.Int(value); }
  bool Uint(unsigned value) { return document_.Uint(value); }
  bool Int64(std::int64_t value) { return document_.Int64(value); }
  bool Uint64(std::uint64_t value) { return document_.Uint64(value); }
  bool Double(double value) { return document_.Double(value); }
  bool RawNumber(const char* text, rapidjson::SizeType length, bool /*copy*/) {
    std::int64_t asSigned = 0;
    if (Convert(text, length, asSigned)) return document_.Int64(asSigned);
    std::uint64_t asUnsigned = 0;
    if (Convert(text, length, asUnsigned)) return document_.Uint64(asUnsigned);
    double asDouble = 0;
    return document_.Double(Convert(text, length, asDouble) ? asDouble : 0.0);
  }
  bool String(const char* text, rapidjson::SizeType length, bool copy) {
    return document_.String(text, length, copy);
  }
  bool Key(const char* text, rapidjson::SizeType length, bool copy) {
    return document_.Key(text, length, copy);
  }
  bool StartObject() { return ++depth_ <= kMaxDepth && document_.StartObject(); }
  bool EndObject(rapidjson::SizeType members) { return --depth_ >= 0 && document_.EndObject(members); }
  bool StartArray() { return ++depth_ <= kMaxDepth && document_.StartArray(); }
  bool EndArray(rapidjson::SizeType elements) { return --depth_ >= 0 && document_.EndArray(elements); }

 private:
  rapidjson::Document& document_;
  int depth_ = 0;
};

}  // namespace

bool ParseJson(std::string_view text, rapidjson::Document& document) {
  if (text.size() > kMaxText) return false;
  bool parsed = false;
  const auto generate = [&](rapidjson::Document& target) {
    rapidjson::MemoryStream bytes(text.data(), text.size());
    rapidjson::EncodedInputStream<rapidjson::UTF8<>, rapidjson::MemoryStream> stream(bytes);
    rapidjson::Reader reader;
    DocumentBuilder builder(target);
    parsed = !reader.Parse<kFlags>(stream, builder).IsError();
    return parsed;
  };
  document.Populate(generate);
  return parsed;
}

const rapidjson::Value* FindMember(const rapidjson::Value& object, const char* key) {
  const auto member = object.FindMember(key);
  return member == object.MemberEnd() ? nullptr : &member->value;
}
