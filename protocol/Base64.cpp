#include "Base64.h"

#include <openssl/evp.h>

#include <array>
#include <cstdint>

namespace ugs {
namespace {

constexpr std::array<int, 256> kValues = [] {
  constexpr std::string_view alphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::array<int, 256> values{};
  values.fill(-1);
  for (std::size_t i = 0; i < alphabet.size(); ++i) {
    values[static_cast<unsigned char>(alphabet[i])] = static_cast<int>(i);
  }
  return values;
}();

int ValueOf(char c) {
  return kValues[static_cast<unsigned char>(c)];
}

// Four characters at a time, to the first group that is cut short; nine tenths of the time of a large
// payload. Returns the number of bytes.
std::size_t DecodeWholeGroups(std::string_view text, char* bytes) {
  char* end = bytes;
  for (std::size_t i = 0; i + 4 <= text.size(); i += 4) {
    const int group = ValueOf(text[i]) << 18 | ValueOf(text[i + 1]) << 12 | ValueOf(text[i + 2]) << 6 |
                      ValueOf(text[i + 3]);
    if (group < 0) break;
    *end++ = static_cast<char>(group >> 16);
    *end++ = static_cast<char>(group >> 8);
    *end++ = static_cast<char>(group);
  }
  return static_cast<std::size_t>(end - bytes);
}

}  // namespace

std::string Base64Encode(std::string_view bytes) {
  std::string text((bytes.size() + 2) / 3 * 4 + 1, '\0');  // EVP_EncodeBlock ends its output with a NUL
  EVP_EncodeBlock(reinterpret_cast<unsigned char*>(text.data()),
                  reinterpret_cast<const unsigned char*>(bytes.data()), static_cast<int>(bytes.size()));
  text.pop_back();
  return text;
}

// By hand, since OpenSSL's decoder refuses what follows the text instead of ending there.
std::string Base64Decode(std::string_view text) {
  std::string bytes(text.size() / 4 * 3, '\0');
  const std::size_t decoded = DecodeWholeGroups(text, bytes.data());
  text.remove_prefix(decoded / 3 * 4);
  bytes.resize(decoded);
  std::uint32_t group = 0;
  int bits = 0;
  for (const char c : text) {
    const int value = ValueOf(c);
    if (value < 0) break;
    group = group << 6 | static_cast<std::uint32_t>(value);
    bits += 6;
    if (bits >= 8) {
      bits -= 8;
      bytes.push_back(static_cast<char>(group >> bits & 0xff));
    }
  }
  return bytes;
}

}  // namespace ugs
