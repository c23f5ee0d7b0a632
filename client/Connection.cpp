#include "Connection.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdint>
#include <cstring>
#include <stdexcept>
#include <system_error>

namespace ugs {
namespace {

constexpr const char* kMonitorEndpoint = "inproc://connection";

// A server whose host vanished closes nothing; the heartbeat finds out (ZMTP 3.1).
constexpr int kHeartbeatMilliseconds = 10000;

std::chrono::milliseconds TimeLeft(std::chrono::steady_clock::time_point deadline) {
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
  return std::max(left, std::chrono::milliseconds(0));
}

}  // namespace

Wakeup::Wakeup() : descriptor_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
  if (descriptor_ == -1) throw std::system_error(errno, std::generic_category(), "eventfd");
}
Wakeup::~Wakeup() {
  close(descriptor_);
}

void Wakeup::Raise() const {
  const std::uint64_t once = 1;
  [[maybe_unused]] const ssize_t written = write(descriptor_, &once, sizeof once);  // fails only when raised
}

void Wakeup::Clear() const {
  std::uint64_t count = 0;
  [[maybe_unused]] const ssize_t taken = read(descriptor_, &count, sizeof count);
}

Client::Connection::Connection(const Address& address, const std::string& publicKeyPem,
                               std::chrono::milliseconds replyTimeout)
    : sealer_(publicKeyPem),
      replyTimeout_(replyTimeout),
      socket_(context_, zmq::socket_type::dealer),
      monitor_(context_, zmq::socket_type::pair) {
  socket_.set(zmq::sockopt::linger, 0);
  socket_.set(zmq::sockopt::immediate, true);  // queues nothing for a connection that is not there
  socket_.set(zmq::sockopt::heartbeat_ivl, kHeartbeatMilliseconds);
  if (zmq_socket_monitor(socket_.handle(), kMonitorEndpoint, ZMQ_EVENT_DISCONNECTED) != 0)
    throw zmq::error_t();
  monitor_.connect(kMonitorEndpoint);
  const std::string endpoint = "tcp://" + address.host + ":" + std::to_string(address.port);
  try {
    socket_.connect(endpoint);
  } catch (const zmq::error_t& error) {
    throw std::invalid_argument("cannot connect to " + endpoint + ": " + error.what());
  }
}

std::optional<int> Client::Connection::Ask(std::string_view plaintext) {
  const Clock::time_point deadline = Clock::now() + replyTimeout_;
  if (underWay_) {
    const Event event = Wait(ZMQ_POLLIN, deadline);
    if (event == Event::kTimeOut || event == Event::kInterrupted) return std::nullopt;
    if (event == Event::kReady) ReceiveCode();  // the late answer to an earlier request
    underWay_ = false;
  }
  Event event = Event::kLost;
  while (event == Event::kLost) event = Wait(ZMQ_POLLOUT, deadline);
  if (event != Event::kReady) return std::nullopt;
  ConnectionWasLost();  // forgets losses from before this request
  if (!socket_.send(zmq::buffer(sealer_.Seal(plaintext)), zmq::send_flags::dontwait)) return std::nullopt;
  underWay_ = true;
  event = Wait(ZMQ_POLLIN, deadline);
  if (event == Event::kLost) underWay_ = false;
  if (event != Event::kReady) return std::nullopt;
  underWay_ = false;
  return ReceiveCode();
}

bool Client::Connection::SleepUntil(Clock::time_point deadline) {
  return Wait(0, deadline) == Event::kTimeOut;
}

Client::Connection::Event Client::Connection::Wait(short readiness, Clock::time_point deadline) {
  std::array<zmq::pollitem_t, 3> items{{{nullptr, interrupt_.Descriptor(), ZMQ_POLLIN, 0},
                                        {socket_.handle(), 0, readiness, 0},
                                        {monitor_.handle(), 0, ZMQ_POLLIN, 0}}};
  const std::size_t used = readiness == 0 ? 1 : items.size();
  while (true) {
    const int ready = zmq::poll(items.data(), used, TimeLeft(deadline));
    if (items[0].revents != 0) {
      interrupt_.Clear();
      return Event::kInterrupted;
    }
    // An answer that came before the connection was lost counts.
    if ((items[1].revents & readiness) != 0) return Event::kReady;
    if (items[2].revents != 0 && ConnectionWasLost()) return Event::kLost;
    if (ready == 0) return Event::kTimeOut;
  }
}

bool Client::Connection::ConnectionWasLost() {
  // An event is two frames: its number in the first two bytes, and the endpoint (zmq_socket_monitor(3)).
  bool lost = false;
  zmq::message_t frame;
  while (monitor_.recv(frame, zmq::recv_flags::dontwait)) {
    std::uint16_t event = 0;
    if (frame.more() && frame.size() >= sizeof event) std::memcpy(&event, frame.data(), sizeof event);
    lost = lost || event == ZMQ_EVENT_DISCONNECTED;
  }
  return lost;
}

std::optional<int> Client::Connection::ReceiveCode() {
  zmq::message_t reply;
  if (!socket_.recv(reply, zmq::recv_flags::dontwait)) return std::nullopt;
  int code = 0;
  const char* end = reply.data<char>() + reply.size();
  const auto [last, error] = std::from_chars(reply.data<char>(), end, code);
  if (error != std::errc() || last != end) throw std::runtime_error("the answer is not a reply code");
  return code;
}

}  // namespace ugs
