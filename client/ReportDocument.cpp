#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include <algorithm>
#include <stdexcept>

#include "ReportLayouts.h"
#include "Secrets.h"
#include "UgsClient.h"

namespace ugs {
namespace {

using Writer = rapidjson::Writer<rapidjson::StringBuffer>;

// With its length: a name may contain NUL.
void WriteString(Writer& writer, const std::string& text) {
  writer.String(text.data(), static_cast<rapidjson::SizeType>(text.size()));
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
  WriteString(writer, usage.id);
  writer.Key(kContainerMember);
  WriteString(writer, usage.container);
  writer.Key(kCameraUrlsMember);
  writer.StartArray();
  for (const std::string& url : usage.cameras) WriteString(writer, url);
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
  // A misspelt key would silently report nothing.
  for (const auto& [key, count] : usage.counts) {
    if (std::ranges::find(keys, key) == keys.end()) {
      throw std::invalid_argument("layout " + usage.layout + " carries no count \"" + key + "\"");
    }
  }
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
