// The files of the page as `ugs page` serves them: in the program, so that nothing else need be installed.
#pragma once

#include <span>
#include <string_view>

struct PageFile {
  std::string_view path;
  const char* type;
  std::string_view text;
};

extern const std::span<const PageFile> kPageFiles;
