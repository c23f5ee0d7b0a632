#pragma once

#include <memory>
#include <string>

namespace ugs {

// Looks up the IPv4 address of a host without being held by it: getaddrinfo(3) cannot be interrupted, and
// with a resolver that does not answer it takes many seconds. So it runs on a thread of its own, which is
// left behind if nobody waits any longer. Not thread-safe.
class Lookup {
 public:
  // Does not block. Throws std::system_error without a thread or descriptor.
  explicit Lookup(const std::string& host);

  // Readable once the lookup is done.
  [[nodiscard]] int Descriptor() const;

  [[nodiscard]] bool IsDone() const;

  // Once it is done: the address, or empty and the reason in `error`.
  [[nodiscard]] std::string Take(std::string& error) const;

 private:
  struct Shared;
  std::shared_ptr<Shared> shared_;
};

}  // namespace ugs
