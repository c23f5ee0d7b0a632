#pragma once

#include <cstdint>
#include <string_view>
#include <vector>

// Opens the envelope `payload` with the private key `scrambledKey` (ScrambledKey.h) and appends its
// plaintext, up to the last "}", to `plaintext`. Returns the number of bytes appended, or -1; a reason that
// operators can act on is in the log. The caller wipes `plaintext`; everything else that is secret is wiped
// here. Thread-safe; takes any bytes.
std::int32_t OpenEnvelope(std::string_view payload, std::string_view scrambledKey,
                          std::vector<char>& plaintext);
