#pragma once

#include <sys/types.h>

#include <chrono>
#include <string>
#include <string_view>
#include <zmq.hpp>

#include "Mutex.h"
#include "Sealer.h"
#include "UgsClient.h"

namespace ugs {

// What has happened since a client or reporter was made. Thread-safe.
class Tally {
 public:
  void Connected();
  void Sent();
  void Ended(const Outcome& outcome, bool wasSent);
  [[nodiscard]] Counters Get() const;

 private:
  mutable Mutex mutex_;
  Counters counters_ UGS_GUARDED_BY(mutex_);
  bool wasConnected_ UGS_GUARDED_BY(mutex_) = false;
};

// The server that a client or reporter reports to, as it knows it. One thread, but for `tally` and IsForeign.
class Destination {
 public:
  // Throws as Client's constructor does.
  Destination(std::string_view server, const std::string& key, std::chrono::milliseconds timeout);

  // An envelope that holds `document`. Throws std::runtime_error if OpenSSL fails.
  [[nodiscard]] std::string Seal(std::string_view document) const { return sealer_.Seal(document); }

  // A site that changes its key changes the file; until then every report is refused.
  void ReadKeyAgain();

  // True in a process that was forked from the one that made this: libzmq's threads are not in it.
  [[nodiscard]] bool IsForeign() const;
  void RequireOwnProcess() const;  // throws std::runtime_error

  const Address address;
  const std::chrono::milliseconds replyTimeout;
  Tally tally;
  zmq::context_t context;

 private:
  const pid_t process_;
  const std::string key_;  // as the caller gave it: PEM text or a file
  Sealer sealer_;
};

// libzmq ends the process in an assertion if it gets some of the descriptors that it needs only. Throws
// std::system_error unless there is room for a context, two sockets and a connection.
void RequireDescriptors();

// Of a reporter or client in a child of the process that made it.
inline constexpr const char* kForked = "this was made before a fork: make one in the process that uses it";

}  // namespace ugs
