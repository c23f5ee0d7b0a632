#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <string_view>
#include <zmq.hpp>

#include "Sealer.h"
#include "UgsClient.h"

namespace ugs {

// Wakes a poll from another thread: an eventfd(2). Raise may be called from any thread.
class Wakeup {
 public:
  Wakeup();  // throws std::system_error without a descriptor
  ~Wakeup();
  Wakeup(const Wakeup&) = delete;
  Wakeup& operator=(const Wakeup&) = delete;

  void Raise() const;
  void Clear() const;
  [[nodiscard]] int Descriptor() const { return descriptor_; }

 private:
  const int descriptor_;
};

// A DEALER socket with at most one request in flight, and the event that interrupts a wait for its answer.
// One thread at a time, except for Interrupt.
class __attribute__((visibility("hidden"))) Client::Connection {
 public:
  using Clock = std::chrono::steady_clock;

  Connection(const Address& address, const std::string& publicKey, std::chrono::milliseconds replyTimeout);

  std::optional<int> Request(std::string_view plaintext);

  // Sleeps until `deadline`. False if it was interrupted.
  bool SleepUntil(Clock::time_point deadline);

  // Any thread. Ends the wait that is going on, or else the next one.
  void Interrupt() { interrupt_.Raise(); }

 private:
  enum class Event { kReady, kLost, kTimeOut, kInterrupted };
  struct Polled {
    bool timedOut;
    bool interrupted;
    bool socket;
    bool monitor;
  };

  [[nodiscard]] Polled Poll(short readiness, Clock::time_point deadline);
  // Waits for a connection that can take a request.
  Event AwaitConnection(Clock::time_point deadline);
  Event AwaitAnswer(Clock::time_point deadline);
  // Brings `connected_` up to date. True if a connection was lost on the way.
  bool TakeEvents();
  std::optional<int> ReceiveCode();

  const Sealer sealer_;
  const std::chrono::milliseconds replyTimeout_;
  const Wakeup interrupt_;
  zmq::context_t context_;
  zmq::socket_t socket_;
  zmq::socket_t monitor_;  // tells when a connection is made and when it is lost
  bool connected_ = false;
  bool inFlight_ = false;  // a request was sent on the present connection and not answered
};

}  // namespace ugs
