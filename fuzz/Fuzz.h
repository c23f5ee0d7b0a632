// What every fuzz target shares: the entry point that libFuzzer calls, and the check of a property.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string_view>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

inline std::string_view AsText(const std::uint8_t* data, std::size_t size) {
  return {reinterpret_cast<const char*>(data), size};
}

// Ends the process, in release builds too, so that the fuzzer keeps the input that broke the property.
inline void Require(bool property, const char* file = __builtin_FILE(), int line = __builtin_LINE()) {
  if (property) return;
  std::fprintf(stderr, "%s:%d: the property does not hold\n", file, line);
  std::abort();
}

// The text up to the next `end`, which is taken off `rest` with it; all of it if there is none.
inline std::string_view NextField(std::string_view& rest, char end = '\n') {
  const std::string_view field = rest.substr(0, rest.find(end));
  rest.remove_prefix(field.size() == rest.size() ? field.size() : field.size() + 1);
  return field;
}
