#pragma once

#include <rapidjson/fwd.h>

#include <string_view>

// Parses `text` into `document`, which must be fresh. Returns false, and leaves the document null, if the
// text is not JSON, nests deeper than 512 or is 2 GiB or longer. Takes linear time and never recurses, and
// none of the library's own number arithmetic sees the text: both end the process on hostile input.
// Integers that fit 64 bits stay integers; any other number is a double, 0 where a double cannot hold it.
[[nodiscard]] bool ParseJson(std::string_view text, rapidjson::Document& document);

// The member of `object`, which must be an object, that is named `key`; null if there is none. Of several
// with that name, the first.
[[nodiscard]] const rapidjson::Value* FindMember(const rapidjson::Value& object, const char* key);
