// Runs a fuzz target on every file of a corpus directory: the regression test of what fuzzing has found.

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <string>
#include <vector>

#include "Fuzz.h"

int main(int argc, char** argv) {
  std::vector<std::filesystem::path> files;
  if (argc == 2) std::ranges::copy(std::filesystem::directory_iterator(argv[1]), std::back_inserter(files));
  std::ranges::sort(files);  // the same order on every file system
  for (const auto& path : files) {
    std::cout << path.filename().string() << std::endl;  // the last one named is the one that failed
    std::ifstream file(path, std::ios::binary);
    const std::string input{std::istreambuf_iterator<char>(file), {}};
    LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(input.data()), input.size());
  }
  return files.empty() ? 1 : 0;
}
