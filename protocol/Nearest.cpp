#include "Nearest.h"

#include <algorithm>
#include <cstddef>
#include <numeric>
#include <utility>

namespace ugs {
namespace {

char LowerCase(char c) {
  return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

// The Levenshtein distance of two names, whatever their case.
std::size_t Distance(std::string_view a, std::string_view b) {
  std::vector<std::size_t> row(b.size() + 1);
  std::iota(row.begin(), row.end(), std::size_t{0});
  for (std::size_t i = 0; i < a.size(); ++i) {
    std::size_t diagonal = std::exchange(row[0], i + 1);
    for (std::size_t j = 0; j < b.size(); ++j) {
      const std::size_t changed = diagonal + (LowerCase(a[i]) == LowerCase(b[j]) ? 0 : 1);
      diagonal = row[j + 1];
      row[j + 1] = std::min({changed, row[j] + 1, diagonal + 1});
    }
  }
  return row[b.size()];
}

}  // namespace

std::string Nearest(std::string_view typed, const std::vector<std::string>& names) {
  return std::ranges::min(names, {}, [&](const std::string& name) { return Distance(typed, name); });
}

}  // namespace ugs
