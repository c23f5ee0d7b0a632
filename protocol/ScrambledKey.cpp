#include "ScrambledKey.h"

#include "Base64.h"
#include "Secrets.h"

namespace ugs {
namespace {

constexpr std::string_view kXorKey = "k4vqzle";

void XorWithKey(std::string& text) {
  for (std::size_t i = 0; i < text.size(); ++i) {
    text[i] = static_cast<char>(text[i] ^ kXorKey[i % kXorKey.size()]);
  }
}

}  // namespace

std::string ScrambleKey(std::string_view pem) {
  std::string text(pem);
  const WipeOnExit wipe(text);
  XorWithKey(text);
  return Base64Encode(text);
}

std::string UnscrambleKey(std::string_view storedText) {
  std::string pem = Base64Decode(storedText);
  XorWithKey(pem);
  return pem;
}

}  // namespace ugs
