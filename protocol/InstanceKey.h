#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace ugs {

// What names an instance in the server's log: a lowercase hexadecimal FNV-1a 64 digest, without leading
// zeros, of the identity followed by the camera URLs. The same cameras in another order are another instance.
// Empty if the identity or every URL is. Thread-safe.
std::string InstanceKey(std::string_view identity, const std::vector<std::string>& cameraUrls);

}  // namespace ugs
