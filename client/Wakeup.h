#pragma once

#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <system_error>

namespace ugs {

// Wakes a poll from another thread: an eventfd(2). Raise may be called from any thread.
class Wakeup {
 public:
  Wakeup() : descriptor_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
    if (descriptor_ == -1) throw std::system_error(errno, std::generic_category(), "eventfd");
  }
  ~Wakeup() { close(descriptor_); }
  Wakeup(const Wakeup&) = delete;
  Wakeup& operator=(const Wakeup&) = delete;

  void Raise() const {
    const std::uint64_t once = 1;
    [[maybe_unused]] const ssize_t written =
        write(descriptor_, &once, sizeof once);  // fails only when raised
  }
  void Clear() const {
    std::uint64_t count = 0;
    [[maybe_unused]] const ssize_t taken = read(descriptor_, &count, sizeof count);
  }
  [[nodiscard]] int Descriptor() const { return descriptor_; }

 private:
  const int descriptor_;
};

}  // namespace ugs
