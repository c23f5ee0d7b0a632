#pragma once

#include <cstdint>
#include <string>

namespace ugs {

// One try to connect, to learn why there is no connection: libzmq tries again and again and does not say.
// Never waits. Not thread-safe.
class Probe {
 public:
  // `address` is an IPv4 address in numbers.
  Probe(const std::string& address, std::uint16_t port);
  ~Probe();
  Probe(const Probe&) = delete;
  Probe& operator=(const Probe&) = delete;

  // Writable once the try has ended; -1 if there is no need to wait.
  [[nodiscard]] int Descriptor() const;

  // 0 if somebody accepted, EINPROGRESS while the try goes on, or else why nobody did (connect(2)).
  [[nodiscard]] int Error() const;

 private:
  const int socket_;
  int error_ = 0;
};

}  // namespace ugs
