#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include <algorithm>
#include <stdexcept>

#include "Nearest.h"
#include "ReportLayouts.h"
#include "Secrets.h"
#include "UgsClient.h"

namespace ugs {
namespace {

using Writer = rapidjson::Writer<rapidjson::StringBuffer, rapidjson::UTF8<>, rapidjson::UTF8<>,
                                 rapidjson::CrtAllocator, rapidjson::kWriteValidateEncodingFlag>;

// The server would read a text up to its first NUL, and another one of broken UTF-8 than was meant.
void WriteString(Writer& writer, const char* field, const std::string& text) {
  if (text.find('\0') != std::string::npos)
    throw std::invalid_argument(std::string(field) + " holds a NUL byte");
  if (!writer.String(text.data(), static_cast<rapidjson::SizeType>(text.size()))) {
    throw std::invalid_argument(std::string(field) + " is not UTF-8");
  }
}

// A misspelt key would silently report nothing.
void RequireKnown(const std::string& count, const std::string& layout, const std::vector<std::string>& keys) {
  if (std::ranges::find(keys, count) != keys.end()) return;
  std::string text = "layout " + layout + " carries no count \"" + count + "\"; did you mean " +
                     Nearest(count, keys) + "? It has";
  for (const std::string& key : keys) text += " " + key;
  throw std::invalid_argument(text);
}

void RequireIdentity(const Usage& usage) {
  if (usage.id.empty()) throw std::invalid_argument(std::string(kInstanceIdMember) + " is empty");
  const auto isEmpty = [](const std::string& url) {
    return url.empty();
  };
  if (std::ranges::all_of(usage.cameras, isEmpty)) {
    throw std::invalid_argument(std::string(kCameraUrlsMember) + " holds no URL");
  }
}

// Room for the whole document, whatever of it is escaped: a buffer that grows leaves copies in memory.
std::size_t MaxDocumentSize(const Usage& usage) {
  constexpr std::size_t escaped = 6;  // "\u0000" for one byte
  std::size_t bytes = 2048 + escaped * (usage.id.size() + usage.container.size());
  for (const std::string& url : usage.cameras) bytes += 3 + escaped * url.size();
  return bytes;
}

void WriteRequest(Writer& writer, const Usage& usage) {
  writer.StartObject();
  writer.Key(kInstanceIdMember);
  WriteString(writer, kInstanceIdMember, usage.id);
  writer.Key(kContainerMember);
  WriteString(writer, kContainerMember, usage.container);
  writer.Key(kCameraUrlsMember);
  writer.StartArray();
  for (const std::string& url : usage.cameras) WriteString(writer, kCameraUrlsMember, url);
  writer.EndArray();
  writer.Key(kCountsMember);
  writer.StartObject();
  for (const std::string& key : CountKeys(usage.layout)) {
    const auto count = usage.counts.find(key);
    writer.Key(key.c_str());
    writer.Uint(count == usage.counts.end() ? 0 : count->second);
  }
  writer.EndObject();
  writer.EndObject();
}

}  // namespace

std::vector<std::string> LayoutNames() {
  std::vector<std::string> names;
  for (const Layout& layout : kLayouts) names.emplace_back(layout.name);
  return names;
}

std::vector<std::string> CountKeys(std::string_view layout) {
  std::vector<std::string> keys;
  for (const Layout& candidate : kLayouts) {
    for (const CountField& field : candidate.addedCounts) keys.emplace_back(field.key);
    if (layout == candidate.name) return keys;
  }
  throw std::invalid_argument("there is no layout \"" + std::string(layout) + "\"");
}

std::string WriteDocument(const Usage& usage) {
  const std::vector<std::string> keys = CountKeys(usage.layout);
  for (const auto& [key, count] : usage.counts) RequireKnown(key, usage.layout, keys);
  RequireIdentity(usage);
  rapidjson::StringBuffer buffer(nullptr, MaxDocumentSize(usage));
  Writer writer(buffer);
  if (usage.layout == kLegacyLayout.name) {
    WriteRequest(writer, usage);
  } else {
    writer.StartObject();
    writer.Key(usage.layout.c_str());
    WriteRequest(writer, usage);
    writer.EndObject();
  }
  std::string document(buffer.GetString(), buffer.GetSize());
  buffer.Clear();  // keeps its memory, which Push hands out once more
  Wipe(buffer.Push(document.size()), document.size());
  return document;
}

}  // namespace ugs
