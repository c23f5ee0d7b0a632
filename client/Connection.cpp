#include "Connection.h"

#include <exception>
#include <utility>
#include <vector>

namespace ugs {

// Not in a child of the process: the event is the parent's, too.
void Client::Connection::Interrupt() const {
  if (!IsForeign()) interrupt_.Raise();
}

Counters Client::Connection::GetCounters() const {
  destination_.RequireOwnProcess();
  return destination_.tally.Get();
}

Outcome Client::Connection::Request(std::string_view plaintext) {
  destination_.RequireOwnProcess();
  return RequestSealed(destination_.Seal(plaintext));
}

Outcome Client::Connection::RequestSealed(std::string envelope) {
  destination_.RequireOwnProcess();
  channel_.Begin(std::move(envelope));
  Clock::time_point until = Clock::now();  // at first, only to learn whether this call was interrupted before
  try {
    while (true) {
      std::vector<zmq_pollitem_t> items{{nullptr, interrupt_.Descriptor(), ZMQ_POLLIN, 0}};
      channel_.AddPollItems(items);
      PollUntil(items, until);
      if (items.front().revents != 0) break;
      if (const std::optional<Outcome> outcome = channel_.Advance()) return *outcome;
      until = channel_.Deadline();
    }
  } catch (const std::exception& error) {
    return channel_.GiveUp(error.what());
  }
  interrupt_.Clear();
  return channel_.GiveUp("the call was interrupted");
}

}  // namespace ugs
