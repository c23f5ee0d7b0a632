#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <zmq.hpp>

#include "UgsClient.h"

// Nobody accepts the fleet's connections.
class NoServer : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// All connections of a fleet in one ROUTER socket, which tells them apart by the names that it gives them. To
// the server each is a DEALER peer; a socket per connection would take two descriptors each. One thread.
class FleetConnections {
 public:
  using Clock = std::chrono::steady_clock;

  struct Answer {
    std::uint32_t connection;
    std::string text;
  };

  // Blocks until all `count` connections are made. Throws NoServer if the next one takes longer than
  // `timeout`, std::runtime_error if they need more descriptors than this process may have.
  FleetConnections(const ugs::Address& address, std::uint32_t count, std::chrono::milliseconds timeout);

  void Send(std::uint32_t connection, const std::string& payload);
  [[nodiscard]] std::optional<Answer> Receive();  // does not wait
  void WaitForAnswer(Clock::time_point until);

 private:
  void AwaitConnected(std::uint32_t count, const ugs::Address& address, std::chrono::milliseconds timeout);

  zmq::context_t context_;
  zmq::socket_t socket_;
  zmq::socket_t monitor_;
  std::uint32_t connected_ = 0;
};
