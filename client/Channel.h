#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <vector>
#include <zmq.hpp>

#include "Destination.h"
#include "Probe.h"
#include "Resolver.h"

namespace ugs {

using Clock = std::chrono::steady_clock;

// One connection to the server, with at most one request in flight. It never waits: its owner polls for what
// AddPollItems says, until the deadline, and then calls Advance. Not thread-safe.
class Channel {
 public:
  // `destination` must outlive it.
  explicit Channel(Destination& destination) : destination_(destination) {}

  // Takes a request. There must be none in flight.
  void Begin(std::string envelope);

  // Does what can be done without waiting. The outcome, once there is one; with it the request has ended.
  std::optional<Outcome> Advance();

  // Ends the request that is in flight.
  Outcome GiveUp(const std::string& why);

  [[nodiscard]] bool IsBusy() const { return busy_; }
  [[nodiscard]] bool IsConnected() const { return link_ && link_->connected; }

  // While it is busy.
  void AddPollItems(std::vector<zmq_pollitem_t>& items);
  [[nodiscard]] Clock::time_point Deadline() const { return deadline_; }

 private:
  // What is given up together when an answer stays away.
  struct Link {
    explicit Link(zmq::context_t& context);
    ~Link();
    Link(const Link&) = delete;
    Link& operator=(const Link&) = delete;

    zmq::socket_t socket;
    zmq::socket_t monitor;  // tells when a connection is made and when it is lost
    std::string address;    // that it connects to, once that is known
    bool connected = false;
  };

  // Each returns nothing as long as it is to be waited for.
  std::optional<Outcome> Send();
  std::optional<Outcome> FindAddress();
  std::optional<Outcome> WhyNotConnected();
  std::optional<Outcome> TakeAnswer();
  std::optional<Outcome> TakeReply();
  // Takes the news of the connection. True if it was lost.
  bool TakeEvents();
  void End(const Outcome& outcome);
  [[nodiscard]] bool IsLate() const { return Clock::now() >= deadline_; }
  [[nodiscard]] std::string Server() const;
  [[nodiscard]] Outcome NotConnected(const std::string& why) const;

  Destination& destination_;
  bool busy_ = false;
  bool sent_ = false;
  std::string envelope_;
  Clock::time_point deadline_;
  std::optional<Lookup> lookup_;  // while one is going on
  std::optional<Link> link_;
  std::optional<Probe> probe_;  // while one is going on
};

// How many items are ready; 0 at `deadline`. A signal of the host's that interrupts the wait costs nothing.
int PollUntil(std::vector<zmq_pollitem_t>& items, Clock::time_point deadline);

// Now and `timeout`, or the end of time.
Clock::time_point DeadlineAfter(std::chrono::milliseconds timeout);

}  // namespace ugs
