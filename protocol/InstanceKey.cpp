#include "InstanceKey.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdint>

namespace ugs {
namespace {

// FNV-1a, 64 bits (Fowler, Noll, Vo).
class Fnv1a {
 public:
  void Add(std::string_view bytes) {
    for (const char c : bytes) digest_ = (digest_ ^ static_cast<unsigned char>(c)) * 0x100000001b3;
  }
  [[nodiscard]] std::uint64_t Digest() const { return digest_; }

 private:
  std::uint64_t digest_ = 0xcbf29ce484222325;
};

}  // namespace

std::string InstanceKey(std::string_view identity, const std::vector<std::string>& cameraUrls) {
  const auto isEmpty = [](const std::string& url) {
    return url.empty();
  };
  if (identity.empty() || std::ranges::all_of(cameraUrls, isEmpty)) return {};
  // Joined without a separator: (a, bc) and (ab, c) are one instance.
  Fnv1a hash;
  hash.Add(identity);
  for (const std::string& url : cameraUrls) hash.Add(url);
  std::array<char, 16> digits{};
  char* const end = std::to_chars(digits.data(), digits.data() + digits.size(), hash.Digest(), 16).ptr;
  return std::string(digits.data(), end);
}

}  // namespace ugs
