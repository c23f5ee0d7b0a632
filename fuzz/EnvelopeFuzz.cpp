// A payload of any form, and envelopes with well-formed parts around any content: at most the text up to a
// last "}" comes out. Input: a payload; or three lines for the three members, where "!" in front has the
// bytes wrapped (the key) or encoded (the others) as an instance would.

#include <spdlog/spdlog.h>

#include <string>

#include "Base64.h"
#include "Envelope.h"
#include "Fuzz.h"
#include "PrivateKey.h"
#include "TestSupport.h"

namespace {
std::string WrapKey(std::string_view key) {
  return Wrap(key.substr(0, 245));
}
std::string Member(std::string_view line, std::string (*encode)(std::string_view)) {
  const bool plain = line.empty() || line[0] != '!';
  return '"' + (plain ? std::string(line) : encode(line.substr(1))) + '"';
}
}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  spdlog::set_level(spdlog::level::off);
  std::string_view rest = AsText(data, size);
  std::string payload(rest);
  if (rest.find('\n') != std::string_view::npos) {
    std::string envelope = "{\"data1\":" + Member(NextField(rest), WrapKey);
    envelope += ",\"data2\":" + Member(NextField(rest), ugs::Base64Encode);
    envelope += ",\"data3\":" + Member(rest, ugs::Base64Encode) + "}";
    payload = ugs::Base64Encode(envelope);
  }
  std::vector<char> plaintext;
  const std::int32_t length = OpenEnvelope(payload, ScrambledPrivateKey(), plaintext);
  Require(length < 0 ? plaintext.empty() : plaintext.size() == static_cast<std::size_t>(length));
  Require(length < 0 || (length > 0 && plaintext.back() == '}'));
  return 0;
}
