#include "Channel.h"

#include <arpa/inet.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <charconv>
#include <cstdint>
#include <cstring>
#include <utility>

#include "UGSDefs.h"

namespace ugs {
namespace {

using std::chrono::milliseconds;

// Few, however long nobody takes them: one for each connection that is made or lost.
constexpr int kEvents = ZMQ_EVENT_HANDSHAKE_SUCCEEDED | ZMQ_EVENT_DISCONNECTED;

constexpr milliseconds kProbe(50);

// A server whose host vanished closes nothing; the heartbeat finds out (ZMTP 3.1).
constexpr int kHeartbeatMilliseconds = 10000;

// For poll(2): at most an hour, after which it is asked again.
milliseconds TimeLeft(Clock::time_point deadline) {
  const auto left = std::min<Clock::duration>(deadline - Clock::now(), std::chrono::hours(1));
  return std::max(std::chrono::ceil<milliseconds>(left), milliseconds(0));
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

}  // namespace

int PollUntil(std::vector<zmq_pollitem_t>& items, Clock::time_point deadline) {
  while (true) {
    const int ready =
        zmq_poll(items.data(), static_cast<int>(items.size()), static_cast<long>(TimeLeft(deadline).count()));
    if (ready > 0 || (ready == 0 && Clock::now() >= deadline)) return ready;
    if (ready < 0 && zmq_errno() != EINTR) throw zmq::error_t();
  }
}

Clock::time_point DeadlineAfter(milliseconds timeout) {
  const auto left = std::chrono::floor<milliseconds>(Clock::time_point::max() - Clock::now());
  return timeout < left ? Clock::now() + timeout : Clock::time_point::max();
}

Channel::Link::Link(zmq::context_t& context)
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

Channel::Link::~Link() {
  // First, while there is somebody at the other end: libzmq's I/O thread would wait for one with its next
  // event.
  zmq_socket_monitor(socket.handle(), nullptr, 0);
}

std::string Channel::Server() const {
  return destination_.address.host + ":" + std::to_string(destination_.address.port);
}

Outcome Channel::NotConnected(const std::string& why) const {
  return Failure(ErrorKind::NotConnected, "no connection to " + Server() + ": " + why);
}

void Channel::Begin(std::string envelope) {
  busy_ = true;
  envelope_ = std::move(envelope);
  deadline_ = DeadlineAfter(destination_.replyTimeout);
}

std::optional<Outcome> Channel::Advance() {
  std::optional<Outcome> outcome;
  try {
    outcome = sent_ ? TakeAnswer() : Send();
  } catch (const std::exception& error) {  // no descriptor, no thread
    outcome = NotConnected(error.what());
  }
  if (outcome) End(*outcome);
  return outcome;
}

Outcome Channel::GiveUp(const std::string& why) {
  Outcome outcome = Failure(sent_ ? ErrorKind::NoAnswer : ErrorKind::NotConnected, why);
  End(outcome);
  return outcome;
}

void Channel::End(const Outcome& outcome) {
  destination_.tally.Ended(outcome, std::exchange(sent_, false));
  busy_ = false;
  probe_.reset();
  // What was not answered may be answered late: not on a connection that the next request uses.
  if (!outcome.code) link_.reset();
  if (outcome.code == UGSDefs::Failed) destination_.ReadKeyAgain();
}

void Channel::AddPollItems(std::vector<zmq_pollitem_t>& items) {
  if (lookup_) items.push_back({nullptr, lookup_->Descriptor(), ZMQ_POLLIN, 0});
  if (probe_) items.push_back({nullptr, probe_->Descriptor(), ZMQ_POLLOUT, 0});
  if (!link_) return;
  items.push_back({link_->monitor.handle(), 0, ZMQ_POLLIN, 0});
  const short readiness = sent_ ? ZMQ_POLLIN : ZMQ_POLLOUT;
  if (link_->connected) items.push_back({link_->socket.handle(), 0, readiness, 0});
}

std::optional<Outcome> Channel::Send() {
  if (!link_) {
    RequireDescriptors();
    Retried([&] { link_.emplace(destination_.context); });
  }
  if (link_->address.empty()) {
    if (std::optional<Outcome> problem = FindAddress()) return problem;
    if (link_->address.empty()) return std::nullopt;
  }
  TakeEvents();  // first of all: what looks writable may belong to a connection that is just gone
  if (probe_ || (!link_->connected && IsLate())) return WhyNotConnected();
  if (!link_->connected) return std::nullopt;
  if (!Retried([&] { return link_->socket.send(zmq::buffer(envelope_), zmq::send_flags::dontwait); })) {
    return IsLate() ? std::optional(NotConnected("it was lost")) : std::nullopt;
  }
  sent_ = true;
  destination_.tally.Sent();
  return std::nullopt;
}

// Names are looked up by us: in libzmq's own look-up, a resolver that does not answer would hold up our end.
std::optional<Outcome> Channel::FindAddress() {
  std::string host = destination_.address.host;
  if (!IsNumeric(host)) {
    if (!lookup_) lookup_.emplace(host);
    if (!lookup_->IsDone()) {
      if (!IsLate()) return std::nullopt;
      return Failure(ErrorKind::NoSuchHost, "host " + host + ": the resolver does not answer");
    }
    std::string error;
    host = std::exchange(lookup_, std::nullopt)->Take(error);
    if (host.empty()) return Failure(ErrorKind::NoSuchHost, error);
  }
  const std::string endpoint = "tcp://" + host + ":" + std::to_string(destination_.address.port);
  Retried([&] { link_->socket.connect(endpoint); });
  link_->address = host;
  return std::nullopt;
}

std::optional<Outcome> Channel::WhyNotConnected() {
  if (!probe_) {
    probe_.emplace(link_->address, destination_.address.port);
    deadline_ = Clock::now() + kProbe;
  }
  const int error = probe_->Error();
  if (error == EINPROGRESS && !IsLate()) return std::nullopt;
  return NotConnected(error == 0             ? "no handshake"
                      : error == EINPROGRESS ? "no answer"
                                             : std::strerror(error));
}

// An answer that has arrived is taken before the news that the connection is lost: it came first.
std::optional<Outcome> Channel::TakeAnswer() {
  if (std::optional<Outcome> outcome = TakeReply()) return outcome;
  if (TakeEvents()) {
    if (std::optional<Outcome> outcome = TakeReply()) return outcome;  // it came between the two looks
    return Failure(ErrorKind::NoAnswer, "the connection to " + Server() + " was lost before the answer");
  }
  if (!IsLate()) return std::nullopt;
  return Failure(ErrorKind::NoAnswer, "no answer from " + Server() + " within " +
                                          std::to_string(destination_.replyTimeout.count()) + " ms");
}

bool Channel::TakeEvents() {
  // An event is two frames: its number in the first two bytes, and the endpoint (zmq_socket_monitor(3)).
  bool lost = false;
  zmq::message_t frame;
  while (Retried([&] { return link_->monitor.recv(frame, zmq::recv_flags::dontwait); })) {
    std::uint16_t event = 0;
    if (!frame.more() || frame.size() < sizeof event) continue;  // the endpoint
    std::memcpy(&event, frame.data(), sizeof event);
    lost = lost || event == ZMQ_EVENT_DISCONNECTED;
    link_->connected = event == ZMQ_EVENT_HANDSHAKE_SUCCEEDED;
    if (link_->connected) destination_.tally.Connected();
  }
  return lost;
}

std::optional<Outcome> Channel::TakeReply() {
  zmq::message_t reply;
  if (!Retried([&] { return link_->socket.recv(reply, zmq::recv_flags::dontwait); })) return std::nullopt;
  int code = 0;
  const char* end = reply.data<char>() + reply.size();
  const auto [last, error] = std::from_chars(reply.data<char>(), end, code);
  if (error != std::errc() || last != end) {
    return Failure(ErrorKind::NoAnswer, "what answers at " + Server() + " is no KorvaneUGS server");
  }
  if (code == UGSDefs::Failed)
    return Outcome{code, ErrorKind::Refused, "refused by " + Server() + "; its log says why"};
  return Outcome{code, ErrorKind::None, {}};
}

}  // namespace ugs
