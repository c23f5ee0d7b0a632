#include "JsonOutput.h"

#include <cstddef>
#include <variant>

void JsonOutput::Put(const StatusCounts& counts) {
  writer_.StartObject();
  for (const auto& [name, count] : counts) Put(name, count);
  writer_.EndObject();
}

void JsonOutput::Put(const std::vector<std::string>& texts) {
  writer_.StartArray();
  for (const std::string& text : texts) Put(text);
  writer_.EndArray();
}

void JsonOutput::Put(const Listing& listing) {
  writer_.StartArray();
  for (const auto& row : listing.rows) {
    writer_.StartObject();
    for (std::size_t column = 0; column < row.size(); ++column) {
      const std::string& name = listing.columns[column].name;
      if (!name.empty()) std::visit([&](const auto& value) { Put(name, value); }, row[column]);
    }
    writer_.EndObject();
  }
  writer_.EndArray();
}

std::string JsonOutput::Text() const {
  std::string text;
  for (const char character : std::string_view(buffer_.GetString(), buffer_.GetSize())) {
    if (character == '\x7f') {
      text += "\\u007f";
    } else {
      text.push_back(character);
    }
  }
  return text + "\n";
}
