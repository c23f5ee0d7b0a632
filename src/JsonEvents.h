// Reads JSON from anybody: the events of the parser, with what is hostile kept from it. For JsonReader and
// Envelope.
#pragma once

#include <rapidjson/encodedstream.h>
#include <rapidjson/memorystream.h>
#include <rapidjson/reader.h>

#include <charconv>
#include <cstdint>
#include <limits>
#include <string_view>

// No layout needs more than four levels; the limit bounds the parser's stack.
inline constexpr int kMaxJsonDepth = 512;

// The parser stacks up to 26 bytes per input byte and counts them in 32 bits.
inline constexpr std::size_t kMaxJsonText = std::numeric_limits<std::int32_t>::max() - 1;

// Reading numbers as strings keeps the parser from converting them: its conversion indexes a table with an
// exponent that the text chose.
inline constexpr unsigned kJsonFlags = rapidjson::kParseIterativeFlag | rapidjson::kParseNumbersAsStringsFlag;

template <typename Number>
bool ConvertNumber(const char* text, rapidjson::SizeType length, Number& number) {
  const auto [end, error] = std::from_chars(text, text + length, number);
  return error == std::errc() && end == text + length;
}

// Passes the parser's events on to a handler, with numbers converted here and the depth watched.
template <typename Handler>
class JsonEvents {
 public:
  explicit JsonEvents(Handler& handler) : handler_(handler) {}

  bool Null() { return handler_.Null(); }
  bool Bool(bool value) { return handler_.Bool(value); }
  bool Int(int value) { return handler_.Int(value); }
  bool Uint(unsigned value) { return handler_.Uint(value); }
  bool Int64(std::int64_t value) { return handler_.Int64(value); }
  bool Uint64(std::uint64_t value) { return handler_.Uint64(value); }
  bool Double(double value) { return handler_.Double(value); }
  bool RawNumber(const char* text, rapidjson::SizeType length, bool /*copy*/) {
    std::int64_t asSigned = 0;
    if (ConvertNumber(text, length, asSigned)) return handler_.Int64(asSigned);
    std::uint64_t asUnsigned = 0;
    if (ConvertNumber(text, length, asUnsigned)) return handler_.Uint64(asUnsigned);
    double asDouble = 0;
    return handler_.Double(ConvertNumber(text, length, asDouble) ? asDouble : 0.0);
  }
  bool String(const char* text, rapidjson::SizeType length, bool copy) {
    return handler_.String(text, length, copy);
  }
  bool Key(const char* text, rapidjson::SizeType length, bool copy) {
    return handler_.Key(text, length, copy);
  }
  bool StartObject() { return ++depth_ <= kMaxJsonDepth && handler_.StartObject(); }
  bool EndObject(rapidjson::SizeType members) { return --depth_ >= 0 && handler_.EndObject(members); }
  bool StartArray() { return ++depth_ <= kMaxJsonDepth && handler_.StartArray(); }
  bool EndArray(rapidjson::SizeType elements) { return --depth_ >= 0 && handler_.EndArray(elements); }

 private:
  Handler& handler_;
  int depth_ = 0;
};

// Passes the events of `text` to `handler`, which has rapidjson's interface for that; numbers come as Int64,
// Uint64 or Double. Returns false if the text is not JSON, is refused (JsonReader.h) or the handler wants no
// more; the events before that have been passed on.
template <typename Handler>
bool ReadJson(std::string_view text, Handler& handler) {
  if (text.size() > kMaxJsonText) return false;
  rapidjson::MemoryStream bytes(text.data(), text.size());
  rapidjson::EncodedInputStream<rapidjson::UTF8<>, rapidjson::MemoryStream> stream(bytes);
  rapidjson::Reader reader;
  JsonEvents<Handler> events(handler);
  return !reader.Parse<kJsonFlags>(stream, events).IsError();
}
