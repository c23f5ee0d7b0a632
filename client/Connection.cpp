#include "Connection.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cstdint>
#include <cstring>
#include <stdexcept>
#include <system_error>

namespace ugs {
namespace {

constexpr const char* kMonitorEndpoint = "inproc://connection";

constexpr int kEvents = ZMQ_EVENT_HANDSHAKE_SUCCEEDED | ZMQ_EVENT_DISCONNECTED;

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

Client::Connection::Connection(const Address& address, const std::string& publicKey,
                               std::chrono::milliseconds replyTimeout)
    : sealer_(publicKey),
      replyTimeout_(replyTimeout),
      socket_(context_, zmq::socket_type::dealer),
      monitor_(context_, zmq::socket_type::pair) {
  socket_.set(zmq::sockopt::linger, 0);
  socket_.set(zmq::sockopt::immediate, true);  // queues nothing for a connection that is not there
  socket_.set(zmq::sockopt::heartbeat_ivl, kHeartbeatMilliseconds);
  // Before the connect, so that no event is missed.
  if (zmq_socket_monitor(socket_.handle(), kMonitorEndpoint, kEvents) != 0) {
    throw zmq::error_t();
  }
  monitor_.connect(kMonitorEndpoint);
  const std::string endpoint = "tcp://" + address.host + ":" + std::to_string(address.port);
  try {
    socket_.connect(endpoint);
  } catch (const zmq::error_t& error) {
    throw std::invalid_argument("cannot connect to " + endpoint + ": " + error.what());
  }
}

// A connection is in one of three states, which `connected_` and `inFlight_` say together:
//   no connection                    -> wait for one, then send
//   connection, nothing in flight    -> send
//   connection, a request in flight  -> wait for its late answer first, then send
// A lost connection takes the request in flight with it, so that the next call may send at once.
std::optional<int> Client::Connection::Request(std::string_view plaintext) {
  const Clock::time_point deadline = Clock::now() + replyTimeout_;
  if (inFlight_) {
    const Event event = AwaitAnswer(deadline);
    if (event == Event::kTimeOut || event == Event::kInterrupted) return std::nullopt;
    inFlight_ = false;
    if (event == Event::kReady) ReceiveCode();  // the late answer to an earlier request
  }
  if (AwaitConnection(deadline) != Event::kReady) return std::nullopt;
  if (!socket_.send(zmq::buffer(sealer_.Seal(plaintext)), zmq::send_flags::dontwait)) return std::nullopt;
  const Event event = AwaitAnswer(deadline);
  inFlight_ = event == Event::kTimeOut || event == Event::kInterrupted;
  return event == Event::kReady ? ReceiveCode() : std::nullopt;
}

bool Client::Connection::SleepUntil(Clock::time_point deadline) {
  // The socket is left alone: what it receives meanwhile is taken by the next request.
  zmq::pollitem_t interrupt{nullptr, interrupt_.Descriptor(), ZMQ_POLLIN, 0};
  if (zmq::poll(&interrupt, 1, TimeLeft(deadline)) == 0) return true;
  interrupt_.Clear();
  return false;
}

// `readiness` is what to wait for on the socket: ZMQ_POLLIN, ZMQ_POLLOUT or nothing.
Client::Connection::Polled Client::Connection::Poll(short readiness, Clock::time_point deadline) {
  std::array<zmq::pollitem_t, 3> items{{{nullptr, interrupt_.Descriptor(), ZMQ_POLLIN, 0},
                                        {socket_.handle(), 0, readiness, 0},
                                        {monitor_.handle(), 0, ZMQ_POLLIN, 0}}};
  const bool timedOut = zmq::poll(items, TimeLeft(deadline)) == 0;
  if (items[0].revents != 0) interrupt_.Clear();
  return {timedOut, items[0].revents != 0, items[1].revents != 0, items[2].revents != 0};
}

Client::Connection::Event Client::Connection::AwaitConnection(Clock::time_point deadline) {
  while (true) {
    const Polled polled = Poll(connected_ ? ZMQ_POLLOUT : short{0}, deadline);
    if (polled.interrupted) return Event::kInterrupted;
    // First of all: what looks writable may belong to a connection that is just gone.
    if (polled.monitor) {
      TakeEvents();
    } else if (polled.socket) {
      return Event::kReady;
    } else if (polled.timedOut) {
      return Event::kTimeOut;
    }
  }
}

// An answer that has arrived is taken before the news that the connection is lost: it came first.
Client::Connection::Event Client::Connection::AwaitAnswer(Clock::time_point deadline) {
  while (true) {
    const Polled polled = Poll(ZMQ_POLLIN, deadline);
    if (polled.interrupted) return Event::kInterrupted;
    if (polled.socket) return Event::kReady;  // also if the connection was lost right after it
    if (polled.monitor && TakeEvents()) return Event::kLost;
    if (polled.timedOut) return Event::kTimeOut;
  }
}

bool Client::Connection::TakeEvents() {
  // An event is two frames: its number in the first two bytes, and the endpoint (zmq_socket_monitor(3)).
  bool lost = false;
  zmq::message_t frame;
  while (monitor_.recv(frame, zmq::recv_flags::dontwait)) {
    std::uint16_t event = 0;
    if (!frame.more() || frame.size() < sizeof event) continue;  // the endpoint
    std::memcpy(&event, frame.data(), sizeof event);
    connected_ = event == ZMQ_EVENT_HANDSHAKE_SUCCEEDED;
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
