#include "Connection.h"

#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <charconv>
#include <cstdint>
#include <cstring>
#include <limits>
#include <stdexcept>
#include <utility>

namespace ugs {
namespace {

using std::chrono::milliseconds;
using Clock = std::chrono::steady_clock;

// Few, however long nobody takes them: one for each connection that is made or lost.
constexpr int kEvents = ZMQ_EVENT_HANDSHAKE_SUCCEEDED | ZMQ_EVENT_DISCONNECTED;

constexpr milliseconds kProbe(50);

// A server whose host vanished closes nothing; the heartbeat finds out (ZMTP 3.1).
constexpr int kHeartbeatMilliseconds = 10000;

// A context, two sockets and a connection. libzmq ends the process in an assertion if it gets some of them
// only.
constexpr std::size_t kDescriptors = 12;

void RequireDescriptors() {
  const std::array<Wakeup, kDescriptors> room;
}

// For a context, whose making must not lack descriptors.
int IoThreads() {
  RequireDescriptors();
  return 1;
}

Clock::time_point DeadlineAfter(milliseconds timeout) {
  const auto left = std::chrono::floor<milliseconds>(Clock::time_point::max() - Clock::now());
  return timeout < left ? Clock::now() + timeout : Clock::time_point::max();
}

// For poll(2): at most an hour, after which it is asked again.
milliseconds TimeLeft(Clock::time_point deadline) {
  const auto left = std::min<Clock::duration>(deadline - Clock::now(), std::chrono::hours(1));
  return std::max(std::chrono::ceil<milliseconds>(left), milliseconds(0));
}

// How many items are ready; 0 at the deadline. A signal of the host's that interrupts the wait costs nothing.
int PollUntil(zmq_pollitem_t* items, int count, Clock::time_point deadline) {
  while (true) {
    const int ready = zmq_poll(items, count, static_cast<long>(TimeLeft(deadline).count()));
    if (ready > 0 || (ready == 0 && Clock::now() >= deadline)) return ready;
    if (ready < 0 && zmq_errno() != EINTR) throw zmq::error_t();
  }
}

// Of a call that does not wait.
template <typename Call>
auto Retried(Call call) {
  while (true) {
    try {
      return call();
    } catch (const zmq::error_t& error) {
      if (error.num() != EINTR) throw;
    }
  }
}

bool IsNumeric(const std::string& host) {
  in_addr address{};
  return inet_pton(AF_INET, host.c_str(), &address) == 1;
}

Outcome Failure(ErrorKind kind, std::string text) {
  return {std::nullopt, kind, std::move(text)};
}

class Descriptor {
 public:
  explicit Descriptor(int number) : number_(number) {}
  ~Descriptor() { close(number_); }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  [[nodiscard]] int Number() const { return number_; }

 private:
  const int number_;
};

const char* const kInterrupted = "the call was interrupted";

}  // namespace

Client::Connection::Link::Link(zmq::context_t& context)
    : socket(context, zmq::socket_type::dealer), monitor(context, zmq::socket_type::pair) {
  socket.set(zmq::sockopt::linger, 0);
  socket.set(zmq::sockopt::immediate, true);  // queues nothing for a connection that is not there
  socket.set(zmq::sockopt::heartbeat_ivl, kHeartbeatMilliseconds);
  // The name of an earlier link's monitor may not be free yet.
  static std::atomic<unsigned> number = 0;
  const std::string endpoint = "inproc://connection-" + std::to_string(++number);
  monitor.set(zmq::sockopt::rcvhwm, 0);  // libzmq's I/O thread would wait for room
  // Before the connect, so that no event is missed.
  if (zmq_socket_monitor(socket.handle(), endpoint.c_str(), kEvents) != 0) throw zmq::error_t();
  monitor.connect(endpoint);
}

Client::Connection::Link::~Link() {
  // First, while there is somebody at the other end: libzmq's I/O thread would wait for one with its next
  // event.
  zmq_socket_monitor(socket.handle(), nullptr, 0);
}

Client::Connection::Connection(Address address, std::string key, milliseconds replyTimeout) try
    : process_(getpid()),
      address_(std::move(address)),
      key_(std::move(key)),
      replyTimeout_(std::max(replyTimeout, milliseconds(0))),
      sealer_(key_),
      context_(IoThreads()) {
  link_.emplace(context_);
} catch (const zmq::error_t& error) {
  throw std::system_error(error.num(), std::generic_category(), error.what());
}

bool Client::Connection::IsForeign() const {
  return getpid() != process_;
}

void Client::Connection::RequireOwnProcess() const {
  if (IsForeign())
    throw std::runtime_error("this was made before a fork: make one in the process that uses it");
}

// Not in a child of the process: the event is the parent's, too.
void Client::Connection::Interrupt() const {
  if (!IsForeign()) interrupt_.Raise();
}

Counters Client::Connection::GetCounters() const {
  RequireOwnProcess();
  const std::scoped_lock lock(mutex_);
  return counters_;
}

template <typename Change>
void Client::Connection::Count(Change change) {
  const std::scoped_lock lock(mutex_);
  change(counters_);
}

std::string Client::Connection::Server() const {
  return address_.host + ":" + std::to_string(address_.port);
}

Outcome Client::Connection::Request(std::string_view plaintext) {
  RequireOwnProcess();
  return RequestSealed(sealer_.Seal(plaintext));
}

Outcome Client::Connection::RequestSealed(const std::string& envelope) {
  RequireOwnProcess();
  const Clock::time_point deadline = DeadlineAfter(replyTimeout_);
  try {
    Outcome outcome = Exchange(envelope, deadline);
    // What was not answered may be answered late: not on a connection that the next request uses.
    if (!outcome.code) link_.reset();
    if (outcome.code == 2) ReadKeyAgain();
    return outcome;
  } catch (const zmq::error_t& error) {
    link_.reset();
    return Failure(ErrorKind::NotConnected, "no connection to " + Server() + ": " + error.what());
  } catch (const std::system_error& error) {  // no descriptor, no thread
    link_.reset();
    return Failure(ErrorKind::NotConnected, "no connection to " + Server() + ": " + error.what());
  }
}

Outcome Client::Connection::Exchange(const std::string& envelope, Clock::time_point deadline) {
  if (!link_) {
    RequireDescriptors();
    link_.emplace(context_);
  }
  if (link_->address.empty()) {
    if (Outcome problem = AwaitAddress(deadline); problem.kind != ErrorKind::None) return problem;
  }
  if (Outcome problem = AwaitConnection(deadline); problem.kind != ErrorKind::None) return problem;
  if (!Retried([&] { return link_->socket.send(zmq::buffer(envelope), zmq::send_flags::dontwait); })) {
    return Failure(ErrorKind::NotConnected, "the connection to " + Server() + " was lost");
  }
  Count([](Counters& counters) { ++counters.sent; });
  Outcome outcome = AwaitAnswer(deadline);
  if (outcome.kind == ErrorKind::None) outcome = ReceiveCode();
  Count([&](Counters& counters) {
    if (!outcome.code) ++counters.unanswered;
    if (outcome.code == 2) ++counters.refused;
    if (outcome.code != 0) return;
    ++counters.counted;
    counters.lastCounted = std::chrono::system_clock::now();
  });
  return outcome;
}

// Names are looked up by us: in libzmq's own look-up, a resolver that does not answer would hold up our end.
Outcome Client::Connection::AwaitAddress(Clock::time_point deadline) {
  std::string host = address_.host;
  if (!IsNumeric(host)) {
    if (!lookup_) lookup_.emplace(host);
    std::array<zmq_pollitem_t, 2> items{
        {{nullptr, interrupt_.Descriptor(), ZMQ_POLLIN, 0}, {nullptr, lookup_->Descriptor(), ZMQ_POLLIN, 0}}};
    if (PollUntil(items.data(), items.size(), deadline) == 0) {
      return Failure(ErrorKind::NoSuchHost, "host " + host + ": the resolver does not answer");
    }
    if (items[0].revents != 0) {
      interrupt_.Clear();
      return Failure(ErrorKind::NotConnected, kInterrupted);
    }
    std::string error;
    host = std::exchange(lookup_, std::nullopt)->Take(error);
    if (host.empty()) return Failure(ErrorKind::NoSuchHost, error);
  }
  link_->socket.connect("tcp://" + host + ":" + std::to_string(address_.port));
  link_->address = host;
  return {};
}

// `readiness` is what to wait for on the socket: ZMQ_POLLIN, ZMQ_POLLOUT or nothing.
Client::Connection::Polled Client::Connection::Poll(short readiness, Clock::time_point deadline) {
  std::array<zmq_pollitem_t, 3> items{{{nullptr, interrupt_.Descriptor(), ZMQ_POLLIN, 0},
                                       {link_->socket.handle(), 0, readiness, 0},
                                       {link_->monitor.handle(), 0, ZMQ_POLLIN, 0}}};
  const bool timedOut = PollUntil(items.data(), items.size(), deadline) == 0;
  if (items[0].revents != 0) interrupt_.Clear();
  return {timedOut, items[0].revents != 0, items[1].revents != 0, items[2].revents != 0};
}

Outcome Client::Connection::AwaitConnection(Clock::time_point deadline) {
  while (true) {
    const Polled polled = Poll(link_->connected ? ZMQ_POLLOUT : short{0}, deadline);
    if (polled.interrupted) return Failure(ErrorKind::NotConnected, kInterrupted);
    // First of all: what looks writable may belong to a connection that is just gone.
    if (polled.other) {
      TakeEvents();
    } else if (polled.socket) {
      return {};
    } else if (polled.timedOut) {
      return Failure(ErrorKind::NotConnected, "no connection to " + Server() + ": " + WhyNotConnected());
    }
  }
}

// An answer that has arrived is taken before the news that the connection is lost: it came first.
Outcome Client::Connection::AwaitAnswer(Clock::time_point deadline) {
  while (true) {
    const Polled polled = Poll(ZMQ_POLLIN, deadline);
    if (polled.interrupted) return Failure(ErrorKind::NoAnswer, kInterrupted);
    if (polled.socket) return {};  // also if the connection was lost right after it
    if (polled.other && TakeEvents()) {
      if (Poll(ZMQ_POLLIN, Clock::now()).socket) return {};  // it came between the two looks
      return Failure(ErrorKind::NoAnswer, "the connection to " + Server() + " was lost before the answer");
    }
    if (polled.timedOut) {
      return Failure(ErrorKind::NoAnswer, "no answer from " + Server() + " within " +
                                              std::to_string(replyTimeout_.count()) + " ms");
    }
  }
}

bool Client::Connection::TakeEvents() {
  // An event is two frames: its number in the first two bytes, and the endpoint (zmq_socket_monitor(3)).
  bool lost = false;
  zmq::message_t frame;
  while (Retried([&] { return link_->monitor.recv(frame, zmq::recv_flags::dontwait); })) {
    std::uint16_t event = 0;
    if (!frame.more() || frame.size() < sizeof event) continue;  // the endpoint
    std::memcpy(&event, frame.data(), sizeof event);
    lost = lost || event == ZMQ_EVENT_DISCONNECTED;
    link_->connected = event == ZMQ_EVENT_HANDSHAKE_SUCCEEDED;
    if (!link_->connected) continue;
    Count(
        [this](Counters& counters) { counters.reconnects += std::exchange(wasConnected_, true) ? 1U : 0U; });
  }
  return lost;
}

// libzmq tries again and again and does not say what is wrong: so one try of our own does.
std::string Client::Connection::WhyNotConnected() const {
  const Descriptor probe(socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
  sockaddr_in server{};
  server.sin_family = AF_INET;
  server.sin_port = htons(address_.port);
  inet_pton(AF_INET, link_->address.c_str(), &server.sin_addr);
  int error = 0;
  socklen_t size = sizeof error;
  if (connect(probe.Number(), reinterpret_cast<const sockaddr*>(&server), sizeof server) == 0)
    return "no handshake";
  if (errno != EINPROGRESS) return std::strerror(errno);
  zmq_pollitem_t item{nullptr, probe.Number(), ZMQ_POLLOUT, 0};
  if (PollUntil(&item, 1, Clock::now() + kProbe) == 0) return "no answer";
  getsockopt(probe.Number(), SOL_SOCKET, SO_ERROR, &error, &size);
  return error == 0 ? "no handshake" : std::strerror(error);
}

Outcome Client::Connection::ReceiveCode() {
  zmq::message_t reply;
  if (!Retried([&] { return link_->socket.recv(reply, zmq::recv_flags::dontwait); })) {
    return Failure(ErrorKind::NoAnswer, "the connection to " + Server() + " was lost before the answer");
  }
  int code = 0;
  const char* end = reply.data<char>() + reply.size();
  const auto [last, error] = std::from_chars(reply.data<char>(), end, code);
  if (error != std::errc() || last != end) {
    return Failure(ErrorKind::NoAnswer, "what answers at " + Server() + " is no KorvaneUGS server");
  }
  if (code == 2) return {code, ErrorKind::Refused, "refused by " + Server() + "; its log says why"};
  return {code, ErrorKind::None, {}};
}

// A site that changes its key changes the file; until then every report is refused.
void Client::Connection::ReadKeyAgain() {
  try {
    sealer_ = Sealer(key_);
  } catch (const std::exception&) {
    return;  // it may be just being written; the old one stays
  }
}

}  // namespace ugs
