// Wiping what must not stay in memory.
#pragma once

#include <cstddef>

namespace ugs {

// Overwrites `size` bytes; the compiler does not remove it as it may remove a memset(3). Thread-safe.
void Wipe(void* data, std::size_t size);

// Wipes a string, vector or array of bytes when the scope ends. The buffer must not have been reallocated
// since the secret was put into it.
template <typename Buffer>
class WipeOnExit {
 public:
  explicit WipeOnExit(Buffer& buffer) : buffer_(buffer) {}
  ~WipeOnExit() { Wipe(buffer_.data(), buffer_.size()); }
  WipeOnExit(const WipeOnExit&) = delete;
  WipeOnExit& operator=(const WipeOnExit&) = delete;

 private:
  Buffer& buffer_;
};

}  // namespace ugs
