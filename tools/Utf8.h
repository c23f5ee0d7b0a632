// UTF-8 (RFC 3629), one character at a time.
#pragma once

#include <string>
#include <string_view>

// Takes the first character off `text`, which must not be empty; U+FFFD for each byte that belongs to none.
char32_t TakeCharacter(std::string_view& text);

void AppendUtf8(std::string& text, char32_t character);

// `bytes` with U+FFFD for all that is not UTF-8.
std::string ValidUtf8(std::string_view bytes);
