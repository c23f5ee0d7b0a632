#include "Destination.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <stdexcept>
#include <system_error>
#include <utility>

#include "UGSDefs.h"
#include "Wakeup.h"

namespace ugs {
namespace {

constexpr std::size_t kDescriptors = 12;

// For a context, whose making must not lack descriptors.
int IoThreads() {
  RequireDescriptors();
  return 1;
}

}  // namespace

void RequireDescriptors() {
  const std::array<Wakeup, kDescriptors> room;
}

void Tally::Connected() {
  const MutexLock lock(mutex_);
  if (std::exchange(wasConnected_, true)) ++counters_.reconnects;
}

void Tally::Sent() {
  const MutexLock lock(mutex_);
  ++counters_.sent;
}

void Tally::Ended(const Outcome& outcome, bool wasSent) {
  const MutexLock lock(mutex_);
  if (wasSent && !outcome.code) ++counters_.unanswered;
  if (outcome.code == UGSDefs::Failed) ++counters_.refused;
  if (outcome.code != UGSDefs::Ok) return;
  ++counters_.counted;
  counters_.lastCounted = std::chrono::system_clock::now();
}

Counters Tally::Get() const {
  const MutexLock lock(mutex_);
  return counters_;
}

Destination::Destination(std::string_view server, const std::string& key,
                         std::chrono::milliseconds timeout) try
    : address(ParseAddress(server)),
      replyTimeout(std::max(timeout, std::chrono::milliseconds(0))),
      context(IoThreads()),
      process_(getpid()),
      key_(key),
      sealer_(key_) {
} catch (const zmq::error_t& error) {
  throw std::system_error(error.num(), std::generic_category(), error.what());
}

void Destination::ReadKeyAgain() {
  try {
    sealer_ = Sealer(key_);
  } catch (const std::exception&) {
    return;  // it may be just being written; the old one stays
  }
}

bool Destination::IsForeign() const {
  return getpid() != process_;
}

void Destination::RequireOwnProcess() const {
  if (IsForeign()) throw std::runtime_error(kForked);
}

}  // namespace ugs
