#include "Reachable.h"

#include <fmt/core.h>
#include <poll.h>

#include <cerrno>
#include <system_error>

#include "Probe.h"
#include "Resolver.h"

namespace {

using Clock = std::chrono::steady_clock;

void Await(int descriptor, short event, Clock::time_point deadline) {
  pollfd item{descriptor, event, 0};
  for (auto now = Clock::now(); now < deadline; now = Clock::now()) {  // again if a signal interrupts it
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - now);
    if (poll(&item, 1, static_cast<int>(left.count())) > 0) return;
  }
}

}  // namespace

std::string WhyUnreachable(const ugs::Address& server, std::chrono::milliseconds timeout) {
  const auto deadline = Clock::now() + timeout;
  const ugs::Lookup lookup(server.host);
  Await(lookup.Descriptor(), POLLIN, deadline);
  if (!lookup.IsDone()) return fmt::format("host {}: the resolver does not answer", server.host);
  std::string error;
  const std::string address = lookup.Take(error);
  if (address.empty()) return error;
  const ugs::Probe probe(address, server.port);
  if (probe.Descriptor() != -1) Await(probe.Descriptor(), POLLOUT, deadline);
  const int code = probe.Error();
  if (code == 0) return {};
  const std::string reason = code == EINPROGRESS ? "no answer" : std::generic_category().message(code);
  return fmt::format("no connection to {}:{}: {}", server.host, server.port, reason);
}
