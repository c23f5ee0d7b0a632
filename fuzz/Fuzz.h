// What every fuzz target shares with Replay.cpp.
#pragma once

#include <cstdio>
#include <cstdlib>
#include <string_view>

// The target: what libFuzzer, or the replay, tries with every input.
void TestOneInput(std::string_view input);

// Ends the process, in release builds too, so that the fuzzer keeps the input that broke the property.
inline void Require(bool property, int line = __builtin_LINE()) {
  if (property) return;
  std::fprintf(stderr, "line %d: the property does not hold\n", line);
  std::abort();
}
