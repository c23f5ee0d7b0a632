#pragma once

#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include <cstdint>
#include <string>
#include <vector>

#include "Listing.h"

// A JSON text of ASCII characters only, without DEL: nothing in it steers a terminal. Strings that go in must
// be UTF-8.
class JsonOutput {
 public:
  using Writer = rapidjson::Writer<rapidjson::StringBuffer, rapidjson::UTF8<>, rapidjson::ASCII<>>;

  Writer& operator*() { return writer_; }
  Writer* operator->() { return &writer_; }

  void Put(const std::string& text) {
    writer_.String(text.data(), static_cast<rapidjson::SizeType>(text.size()));
  }
  void Put(std::int64_t number) { writer_.Int64(number); }
  void Put(double number) { writer_.Double(number); }
  void Put(bool flag) { writer_.Bool(flag); }
  void Put(Time time) { Put(time.seconds); }
  void Put(UtcTime time) { Put(time.seconds); }
  void Put(Age age) { Put(age.seconds); }
  void Put(Hours hours) { Put(static_cast<double>(hours.seconds) / 3600); }
  void Put(Share share) { Put(share.Value()); }
  void Put(const Digest& digest) { Put(digest.text); }
  void Put(const StatusCounts& counts);
  void Put(const std::vector<std::string>& texts);
  // An array of objects.
  void Put(const Listing& listing);

  template <typename Value>
  void Put(const std::string& name, const Value& value) {
    writer_.Key(name.data(), static_cast<rapidjson::SizeType>(name.size()));
    Put(value);
  }

  // With a line end.
  [[nodiscard]] std::string Text() const;

 private:
  rapidjson::StringBuffer buffer_;
  Writer writer_{buffer_};
};
