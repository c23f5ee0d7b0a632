#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace ugs {

// The one of `names` that `typed` was probably meant to be, whatever its case; `names` must not be empty.
// Thread-safe.
std::string Nearest(std::string_view typed, const std::vector<std::string>& names);

}  // namespace ugs
