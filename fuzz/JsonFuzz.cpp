// Any text: either it is refused, or what was read can be written and read again to the same value.

#include <rapidjson/document.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include <string>

#include "Fuzz.h"
#include "JsonReader.h"

static std::string Write(const rapidjson::Document& document) {
  rapidjson::StringBuffer buffer;
  rapidjson::Writer<rapidjson::StringBuffer> writer(buffer);
  Require(document.Accept(writer));
  return {buffer.GetString(), buffer.GetSize()};
}

void TestOneInput(std::string_view input) {
  rapidjson::Document document;
  if (!ParseJson(input, document)) return;
  rapidjson::Document again;
  Require(ParseJson(Write(document), again) && Write(again) == Write(document));
}
