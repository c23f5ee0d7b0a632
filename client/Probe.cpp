#include "Probe.h"

#include <arpa/inet.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>

namespace ugs {

Probe::Probe(const std::string& address, std::uint16_t port)
    : socket_(socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0)) {
  if (socket_ == -1) {
    error_ = errno;
    return;
  }
  sockaddr_in server{};
  server.sin_family = AF_INET;
  server.sin_port = htons(port);
  inet_pton(AF_INET, address.c_str(), &server.sin_addr);
  if (connect(socket_, reinterpret_cast<const sockaddr*>(&server), sizeof server) != 0) error_ = errno;
}

Probe::~Probe() {
  if (socket_ != -1) close(socket_);
}

int Probe::Descriptor() const {
  return error_ == EINPROGRESS ? socket_ : -1;
}

int Probe::Error() const {
  pollfd state{socket_, POLLOUT, 0};
  if (error_ != EINPROGRESS || poll(&state, 1, 0) != 1) return error_;
  int error = 0;
  socklen_t size = sizeof error;
  getsockopt(socket_, SOL_SOCKET, SO_ERROR, &error, &size);
  return error;
}

}  // namespace ugs
