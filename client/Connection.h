#pragma once

#include <sys/types.h>

#include <chrono>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <zmq.hpp>

#include "Resolver.h"
#include "Sealer.h"
#include "UgsClient.h"
#include "Wakeup.h"

namespace ugs {

// A DEALER socket with at most one request in flight, and the event that interrupts a wait for its answer.
// One thread at a time, except for Interrupt and GetCounters.
class __attribute__((visibility("hidden"))) Client::Connection {
 public:
  using Clock = std::chrono::steady_clock;

  Connection(Address address, std::string key, std::chrono::milliseconds replyTimeout);

  // Throws std::runtime_error if the request cannot be sealed, or in a process that was forked.
  Outcome Request(std::string_view plaintext);
  Outcome RequestSealed(const std::string& envelope);

  // Any thread. Ends the wait that is going on, or else the next one.
  void Interrupt() const;

  // Any thread. Throws as Request does in a process that was forked.
  [[nodiscard]] Counters GetCounters() const;

  // True in a process that was forked from the one that made this: libzmq's threads are not in it.
  [[nodiscard]] bool IsForeign() const;

  Error lastError;  // of the client's last call; its thread's

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
  struct Polled {
    bool timedOut;
    bool interrupted;
    bool socket;
    bool other;
  };

  void RequireOwnProcess() const;
  Outcome Exchange(const std::string& envelope, Clock::time_point deadline);
  // Each returns the reason if there is to be none; ErrorKind::None otherwise.
  Outcome AwaitAddress(Clock::time_point deadline);
  Outcome AwaitConnection(Clock::time_point deadline);
  Outcome AwaitAnswer(Clock::time_point deadline);
  [[nodiscard]] Polled Poll(short readiness, Clock::time_point deadline);
  // Takes the news of the connection. True if it was lost.
  bool TakeEvents();
  Outcome ReceiveCode();
  void ReadKeyAgain();
  [[nodiscard]] std::string Server() const;
  [[nodiscard]] std::string WhyNotConnected() const;
  template <typename Change>
  void Count(Change change);

  const pid_t process_;
  const Address address_;
  const std::string key_;  // as the caller gave it: PEM text or a file
  const std::chrono::milliseconds replyTimeout_;
  const Wakeup interrupt_;
  Sealer sealer_;
  zmq::context_t context_;
  std::optional<Lookup> lookup_;  // while one is going on
  std::optional<Link> link_;

  mutable std::mutex mutex_;  // guards the next two
  Counters counters_;
  bool wasConnected_ = false;
};

}  // namespace ugs
