// Any text: either it is refused, or what was read can be written and read again to the same value.

#include <rapidjson/document.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include <string>

#include "Fuzz.h"
#include "JsonReader.h"

namespace {
std::string Write(const rapidjson::Document& document) {
  rapidjson::StringBuffer buffer;
  rapidjson::Writer<rapidjson::StringBuffer> writer(buffer);
  Require(document.Accept(writer));
  return {buffer.GetString(), buffer.GetSize()};
}
}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  rapidjson::Document document;
  if (!ParseJson(AsText(data, size), document)) return 0;
  const std::string text = Write(document);
  rapidjson::Document again;
  Require(ParseJson(text, again));
  Require(Write(again) == text);
  return 0;
}
