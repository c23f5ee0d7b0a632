// The stored form of a server's private key: base64 of its PEM text XOR-ed with a repeating constant. This
// hides the key from a look at the binary and from nothing else. Thread-safe.
#pragma once

#include <string>
#include <string_view>

namespace ugs {

std::string ScrambleKey(std::string_view pem);

// The PEM text; the caller wipes it.
std::string UnscrambleKey(std::string_view storedText);

}  // namespace ugs
