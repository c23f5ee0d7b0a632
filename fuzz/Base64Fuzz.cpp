// Decoding gives what a slow decoder gives that works bit by bit, and undoes encoding.

#include <cmath>
#include <string>

#include "Crypto.h"
#include "Fuzz.h"
#include "TestSupport.h"

namespace {
std::string DecodeSlowly(std::string_view text) {
  constexpr std::string_view alphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string bits;
  for (std::size_t i = 0; i < text.size() && alphabet.find(text[i]) != std::string_view::npos; ++i) {
    for (int bit = 5; bit >= 0; --bit) bits += (alphabet.find(text[i]) >> bit & 1) != 0 ? '1' : '0';
  }
  std::string bytes;
  for (std::size_t i = 0; i + 8 <= bits.size(); i += 8) {
    bytes += static_cast<char>(std::stoi(bits.substr(i, 8), nullptr, 2));
  }
  return bytes;
}
}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view text = AsText(data, size);
  Require(Base64Decode(text) == DecodeSlowly(text));
  Require(Base64Decode(Base64Encode(text)) == text);
  return 0;
}
