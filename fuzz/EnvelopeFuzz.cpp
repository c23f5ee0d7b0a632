// A payload of any form, and envelopes with well-formed parts around any content: at most the text up to a
// last "}" comes out. Input: a payload; or three lines for the three members, where "!" in front has the
// bytes wrapped (the key) or encoded (the others) as an instance would.

#include <spdlog/spdlog.h>

#include <sstream>

#include "Base64.h"
#include "Envelope.h"
#include "Fuzz.h"
#include "PrivateKey.h"
#include "TestSupport.h"

void TestOneInput(std::string_view input) {
  spdlog::set_level(spdlog::level::off);
  std::string payload(input);
  if (payload.find('\n') != std::string::npos) {
    std::istringstream lines(payload);
    std::string key;
    std::string iv;
    std::getline(std::getline(lines, key), iv);
    std::string ciphertext(std::istreambuf_iterator<char>(lines), {});
    if (key.starts_with('!')) key = Wrap(key.substr(1, 245));
    for (std::string* member : {&iv, &ciphertext}) {
      if (member->starts_with('!')) *member = ugs::Base64Encode(member->substr(1));
    }
    payload = ugs::Base64Encode(R"({"data1":")" + key + R"(","data2":")" + iv + R"(","data3":")" +
                                ciphertext + "\"}");
  }
  std::vector<char> plaintext;
  const std::int32_t length = OpenEnvelope(payload, ScrambledPrivateKey(), plaintext);
  Require(length < 0 ? plaintext.empty() : plaintext.size() == static_cast<std::size_t>(length));
  Require(length < 0 || (length > 0 && plaintext.back() == '}'));
}
