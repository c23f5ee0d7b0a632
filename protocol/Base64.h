// Base64 (RFC 4648, section 4). Thread-safe.
#pragma once

#include <string>
#include <string_view>

namespace ugs {

// `bytes` may be any bytes. The result is padded and has no line breaks.
std::string Base64Encode(std::string_view bytes);

// Decodes up to the first character outside the alphabet, "=" and line breaks included. A last group of two
// or three characters gives one or two bytes.
std::string Base64Decode(std::string_view text);

}  // namespace ugs
