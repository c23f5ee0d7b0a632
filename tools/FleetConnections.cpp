#include "FleetConnections.h"

#include <fmt/core.h>
#include <sys/resource.h>

#include <algorithm>
#include <array>
#include <stdexcept>

#include "Reachable.h"

namespace {

constexpr std::uint32_t kConnectBatch = 100;  // what a listener's backlog takes at once
constexpr rlim_t kOwnDescriptors = 64;        // of this process, beside the connections
constexpr std::chrono::seconds kReasonTimeout(1);
constexpr const char* kMonitorEndpoint = "inproc://events";

std::string Name(std::uint32_t connection) {
  return std::to_string(connection);
}

void RaiseOpenFileLimit(std::uint32_t connections) {
  rlimit limit{};
  getrlimit(RLIMIT_NOFILE, &limit);
  limit.rlim_cur = limit.rlim_max;
  setrlimit(RLIMIT_NOFILE, &limit);
  if (limit.rlim_max < connections + kOwnDescriptors) {
    throw std::runtime_error(
        fmt::format("{} connections need more open files than the limit of {} (ulimit -Hn)", connections,
                    limit.rlim_max));
  }
}

}  // namespace

FleetConnections::FleetConnections(const ugs::Address& address, std::uint32_t count,
                                   std::chrono::milliseconds timeout)
    : socket_(context_, zmq::socket_type::router), monitor_(context_, zmq::socket_type::pair) {
  RaiseOpenFileLimit(count);
  socket_.set(zmq::sockopt::linger, 0);
  // No limits: a report that the socket dropped would look like one that the server lost.
  socket_.set(zmq::sockopt::sndhwm, 0);
  socket_.set(zmq::sockopt::rcvhwm, 0);
  socket_.set(zmq::sockopt::router_mandatory, true);  // an error for a name we never gave
  if (zmq_socket_monitor(socket_.handle(), kMonitorEndpoint, ZMQ_EVENT_HANDSHAKE_SUCCEEDED) != 0) {
    throw zmq::error_t();
  }
  monitor_.connect(kMonitorEndpoint);
  const std::string endpoint = fmt::format("tcp://{}:{}", address.host, address.port);
  for (std::uint32_t i = 0; i < count; ++i) {
    socket_.set(zmq::sockopt::connect_routing_id, Name(i));
    socket_.connect(endpoint);
    if ((i + 1) % kConnectBatch == 0 || i + 1 == count) AwaitConnected(i + 1, address, timeout);
  }
}

// Batch by batch, or a backlog that overflows would cost seconds of retries.
void FleetConnections::AwaitConnected(std::uint32_t count, const ugs::Address& address,
                                      std::chrono::milliseconds timeout) {
  monitor_.set(zmq::sockopt::rcvtimeo, static_cast<int>(timeout.count()));
  for (; connected_ < count; ++connected_) {
    zmq::message_t event;
    zmq::message_t source;
    if (!monitor_.recv(event) || !monitor_.recv(source)) {
      const std::string reason = WhyUnreachable(address, kReasonTimeout);
      throw NoServer(fmt::format("only {} of {} connections to {}:{} came about{}{}", connected_, count,
                                 address.host, address.port, reason.empty() ? "" : "; ", reason));
    }
  }
}

void FleetConnections::Send(std::uint32_t connection, const std::string& payload) {
  socket_.send(zmq::buffer(Name(connection)), zmq::send_flags::sndmore);
  socket_.send(zmq::buffer(payload), zmq::send_flags::none);
}

std::optional<FleetConnections::Answer> FleetConnections::Receive() {
  zmq::message_t name;
  zmq::message_t text;
  if (!socket_.recv(name, zmq::recv_flags::dontwait) || !socket_.recv(text)) return std::nullopt;
  return Answer{static_cast<std::uint32_t>(std::stoul(name.to_string())), text.to_string()};
}

void FleetConnections::WaitForAnswer(Clock::time_point until) {
  // Rounded down, so that the last millisecond is spent looking: a late report would look like a slow answer.
  const auto left = std::chrono::floor<std::chrono::milliseconds>(until - Clock::now());
  std::array<zmq::pollitem_t, 1> items{{{socket_.handle(), 0, ZMQ_POLLIN, 0}}};
  zmq::poll(items, std::max(left, std::chrono::milliseconds(0)));
}
