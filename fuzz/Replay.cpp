// The entry of every target. Without libFuzzer, runs it on every file of a corpus directory: the regression
// test of what fuzzing has found.

#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <set>
#include <string>

#include "Fuzz.h"

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size) {
  TestOneInput({reinterpret_cast<const char*>(data), size});
  return 0;
}

#ifndef UGS_FUZZ
int main(int /*argc*/, char** argv) {
  const std::filesystem::directory_iterator directory(argv[1]);
  const std::set<std::filesystem::path> files(begin(directory), end(directory));  // in order
  for (const auto& path : files) {
    std::cout << path.filename().string() << std::endl;  // the last one named is the one that failed
    std::ifstream file(path, std::ios::binary);
    TestOneInput(std::string{std::istreambuf_iterator<char>(file), {}});
  }
  return files.empty() ? 1 : 0;
}
#endif
