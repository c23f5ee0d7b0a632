#include <rapidjson/error/en.h>
#include <rapidjson/reader.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include <algorithm>
#include <charconv>
#include <limits>
#include <set>
#include <stdexcept>
#include <utility>

#include "Nearest.h"
#include "ReportLayouts.h"
#include "Secrets.h"
#include "UgsClient.h"

namespace ugs {
namespace {

using Writer = rapidjson::Writer<rapidjson::StringBuffer, rapidjson::UTF8<>, rapidjson::UTF8<>,
                                 rapidjson::CrtAllocator, rapidjson::kWriteValidateEncodingFlag>;

// The server would read a text up to its first NUL, and another one of broken UTF-8 than was meant.
void RequireNoNul(std::string_view field, std::string_view text) {
  if (text.find('\0') != std::string_view::npos) {
    throw std::invalid_argument(std::string(field) + " holds a NUL byte");
  }
}

void WriteString(Writer& writer, const char* field, const std::string& text) {
  RequireNoNul(field, text);
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

// Takes the parser's events of one document, and refuses the first that does not belong where it comes.
class DocumentReader : public rapidjson::BaseReaderHandler<rapidjson::UTF8<>, DocumentReader> {
 public:
  bool Key(const char* text, rapidjson::SizeType length, bool /*copy*/) {
    member_.assign(text, length);
    if (place_ == Place::Root && usage_.layout.empty()) {
      usage_.layout = IsLayout(member_) ? member_ : kLegacyLayout.name;
    }
    if (place_ == Place::Counts) {
      RequireKnown(member_, usage_.layout, CountKeys(usage_.layout));
    } else {
      RequireKnownMember();
    }
    if (!seen_.insert(member_).second) throw std::invalid_argument(member_ + " is there twice");
    return true;
  }

  bool StartObject() {
    if (place_ == Place::Document) {
      place_ = Place::Root;
    } else if (place_ == Place::Root && IsLayout(member_)) {
      place_ = Place::Request;
    } else if (InRequest() && member_ == kCountsMember) {
      place_ = Place::Counts;
    } else {
      Refuse("an object");
    }
    return true;
  }

  bool EndObject(rapidjson::SizeType /*members*/) {
    place_ = place_ == Place::Counts && !IsLegacy() ? Place::Request : Place::Root;
    return true;
  }

  bool StartArray() {
    if (!InRequest() || member_ != kCameraUrlsMember) Refuse("an array");
    place_ = Place::Cameras;
    return true;
  }

  bool EndArray(rapidjson::SizeType /*elements*/) {
    place_ = IsLegacy() ? Place::Root : Place::Request;
    return true;
  }

  bool String(const char* text, rapidjson::SizeType length, bool /*copy*/) {
    const std::string_view value(text, length);
    if (place_ == Place::Cameras) {
      usage_.cameras.emplace_back(value);
    } else if (InRequest() && member_ == kInstanceIdMember) {
      usage_.id = value;
    } else if (InRequest() && member_ == kContainerMember) {
      usage_.container = value;
    } else {
      Refuse("a string");
    }
    RequireNoNul(member_, value);
    return true;
  }

  bool RawNumber(const char* text, rapidjson::SizeType length, bool /*copy*/) {
    const std::string number(text, length);
    if (place_ != Place::Counts) Refuse(number);
    std::uint32_t count = 0;
    const char* end = number.data() + length;
    const auto [last, error] = std::from_chars(number.data(), end, count);
    if (error != std::errc() || last != end) Refuse(number);
    usage_.counts[member_] = count;
    return true;
  }

  bool Bool(bool value) { Refuse(value ? "true" : "false"); }
  bool Null() { Refuse("null"); }
  bool Default() { Refuse("something else"); }  // the parser gives none of the other events

  Usage Take() {
    if (!IsLegacy() && !seen_.contains(usage_.layout)) throw std::invalid_argument("the document is empty");
    for (const char* member : {kInstanceIdMember, kCameraUrlsMember}) {
      if (!seen_.contains(member)) throw std::invalid_argument(std::string(member) + " is missing");
    }
    RequireIdentity(usage_);
    return std::move(usage_);
  }

 private:
  enum class Place { Document, Root, Request, Cameras, Counts };

  static bool IsLayout(const std::string& member) {
    return member != kLegacyLayout.name &&
           std::ranges::any_of(kLayouts, [&](const Layout& layout) { return member == layout.name; });
  }
  [[nodiscard]] bool IsLegacy() const { return usage_.layout == kLegacyLayout.name; }
  [[nodiscard]] bool InRequest() const { return place_ == (IsLegacy() ? Place::Root : Place::Request); }

  void RequireKnownMember() const {
    std::vector<std::string> known{kInstanceIdMember, kContainerMember, kCameraUrlsMember, kCountsMember};
    const bool isKnown = std::ranges::find(known, member_) != known.end();
    if (InRequest() ? isKnown : member_ == usage_.layout) return;
    if (place_ == Place::Root) {
      if (isKnown || IsLayout(member_)) {
        throw std::invalid_argument(member_ + " does not belong beside layout " + usage_.layout);
      }
      const auto layouts = LayoutNames();
      known.insert(known.end(), layouts.rbegin(), layouts.rend() - 1);  // but for the legacy one
    }
    throw std::invalid_argument("there is no member \"" + member_ + "\" here; did you mean " +
                                Nearest(member_, known) + "?");
  }

  // What stands in the place of a value of another type.
  [[noreturn]] void Refuse(const std::string& value) const {
    if (place_ == Place::Document) throw std::invalid_argument("the document is no object");
    if (place_ == Place::Counts) {
      throw std::invalid_argument("count " + member_ + " is " + value + ", not from 0 to 4294967295");
    }
    const bool isText = member_ == kInstanceIdMember || member_ == kContainerMember;
    const bool isUrls = member_ == kCameraUrlsMember;
    throw std::invalid_argument(member_ + " must be " +
                                (isText   ? "a string"
                                 : isUrls ? "an array of strings"
                                          : "an object") +
                                ", not " + value);
  }

  Usage usage_{.layout = {}};
  Place place_ = Place::Document;
  std::string member_;          // the newest key
  std::set<std::string> seen_;  // no member has the name of a count
};

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

Usage ReadDocument(std::string_view json) {
  constexpr unsigned flags = rapidjson::kParseInsituFlag | rapidjson::kParseIterativeFlag |
                             rapidjson::kParseValidateEncodingFlag | rapidjson::kParseNumbersAsStringsFlag;
  const auto fail = [](std::size_t offset, const std::string& why) {
    throw std::invalid_argument("at offset " + std::to_string(offset) + ": " + why);
  };
  // The parser takes a NUL for the end, and counts bytes in 32 bits.
  if (const std::size_t nul = json.find('\0'); nul != std::string_view::npos) fail(nul, "a NUL byte");
  if (json.size() > std::numeric_limits<std::int32_t>::max()) fail(json.size(), "too long");
  std::string text(json);  // in place, so that the parser makes no copies of its own
  const WipeOnExit wipe(text);
  rapidjson::InsituStringStream stream(text.data());
  rapidjson::Reader parser;
  DocumentReader reader;
  const rapidjson::ParseResult result = parser.Parse<flags>(stream, reader);
  if (result.IsError()) fail(result.Offset(), rapidjson::GetParseError_En(result.Code()));
  return reader.Take();
}

}  // namespace ugs
