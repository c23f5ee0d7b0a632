#include "Utf8.h"

#include <cstddef>

namespace {

struct Form {
  std::size_t length;
  char32_t lead;     // the bits of the first byte that count
  char32_t minimum;  // what is lower has a shorter form, and is refused in this one
};

Form FormOf(unsigned char first) {
  if (first < 0x80) return {1, first, 0};
  if (first >= 0xC0 && first < 0xE0) return {2, first & 0x1FU, 0x80};
  if (first >= 0xE0 && first < 0xF0) return {3, first & 0x0FU, 0x800};
  if (first >= 0xF0 && first < 0xF8) return {4, first & 0x07U, 0x10000};
  return {0, 0, 0};
}

constexpr char32_t kReplacement = 0xFFFD;

}  // namespace

char32_t TakeCharacter(std::string_view& text) {
  const Form form = FormOf(static_cast<unsigned char>(text.front()));
  char32_t character = form.lead;
  bool isWhole = form.length > 0 && form.length <= text.size();
  for (std::size_t i = 1; isWhole && i < form.length; ++i) {
    const auto byte = static_cast<unsigned char>(text[i]);
    isWhole = (byte & 0xC0U) == 0x80;
    character = character << 6U | (byte & 0x3FU);
  }
  const bool isSurrogate = character >= 0xD800 && character < 0xE000;
  if (!isWhole || character < form.minimum || character > 0x10FFFF || isSurrogate) {
    text.remove_prefix(1);
    return kReplacement;
  }
  text.remove_prefix(form.length);
  return character;
}

void AppendUtf8(std::string& text, char32_t character) {
  const auto append = [&](char32_t byte) {
    text.push_back(static_cast<char>(byte));
  };
  const auto appendTail = [&](unsigned shift) {
    append(0x80U | (character >> shift & 0x3FU));
  };
  if (character < 0x80) return append(character);
  if (character < 0x800) {
    append(0xC0U | character >> 6U);
  } else if (character < 0x10000) {
    append(0xE0U | character >> 12U);
    appendTail(6);
  } else {
    append(0xF0U | character >> 18U);
    appendTail(12);
    appendTail(6);
  }
  appendTail(0);
}

std::string ValidUtf8(std::string_view bytes) {
  std::string valid;
  valid.reserve(bytes.size());
  while (!bytes.empty()) AppendUtf8(valid, TakeCharacter(bytes));
  return valid;
}
