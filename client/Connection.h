#pragma once

#include <chrono>
#include <string>
#include <string_view>

#include "Channel.h"
#include "Destination.h"
#include "UgsClient.h"
#include "Wakeup.h"

namespace ugs {

// A channel whose owner waits for the answer. One thread at a time, except for Interrupt and GetCounters.
class __attribute__((visibility("hidden"))) Client::Connection {
 public:
  Connection(std::string_view server, const std::string& key, std::chrono::milliseconds replyTimeout)
      : destination_(server, key, replyTimeout), channel_(destination_) {}

  // They throw std::runtime_error if the request cannot be sealed, or in a process that was forked.
  Outcome Request(std::string_view plaintext);
  Outcome RequestSealed(std::string envelope);

  // Any thread. Ends the wait that is going on, or else the next one.
  void Interrupt() const;

  // Any thread. Throws as Request does in a process that was forked.
  [[nodiscard]] Counters GetCounters() const;

  [[nodiscard]] bool IsForeign() const { return destination_.IsForeign(); }

  Error lastError;  // of the client's last call; its thread's

 private:
  Destination destination_;
  Channel channel_;
  const Wakeup interrupt_;
};

}  // namespace ugs
