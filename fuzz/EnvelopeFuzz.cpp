// A payload of any form, and envelopes with well-formed parts around any content: at most the text up to a
// last
// "}" comes out. Input: a payload; or three lines for the three members, where "!" in front has the bytes
// wrapped (the key) or encoded (the others) as an instance would.

#include <string>

#include "Fuzz.h"
#include "KorvaneControllerServer.h"
#include "Logging.h"
#include "TestSupport.h"

namespace {
std::string Member(std::string_view line, std::string (*encode)(std::string_view)) {
  const bool plain = line.empty() || line[0] != '!';
  return '"' + (plain ? std::string(line) : encode(line.substr(1))) + '"';
}
}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static KorvaneControllerServer server(true, 0, ScrambledPrivateKey(), nullptr);
  spdlog::set_level(spdlog::level::off);
  std::string_view rest = AsText(data, size);
  std::string payload(rest);
  if (rest.find('\n') != std::string_view::npos) {
    std::string envelope = "{\"data1\":" + Member(NextField(rest), WrapKey);
    envelope += ",\"data2\":" + Member(NextField(rest), Base64Encode);
    envelope += ",\"data3\":" + Member(rest, Base64Encode) + "}";
    payload = Base64Encode(envelope);
  }
  std::vector<char> plaintext;
  const std::int32_t length = server.DecryptData(payload, plaintext);
  Require(length < 0 ? plaintext.empty() : plaintext.size() == static_cast<std::size_t>(length));
  Require(length < 0 || (length > 0 && plaintext.back() == '}'));
  return 0;
}
