#include "JsonReader.h"

#include <rapidjson/document.h>

#include "JsonEvents.h"

bool ParseJson(std::string_view text, rapidjson::Document& document) {
  bool parsed = false;
  const auto generate = [&](rapidjson::Document& target) {
    return parsed = ReadJson(text, target);
  };
  document.Populate(generate);
  return parsed;
}

const rapidjson::Value* FindMember(const rapidjson::Value& object, const char* key) {
  const auto member = object.FindMember(key);
  return member == object.MemberEnd() ? nullptr : &member->value;
}
