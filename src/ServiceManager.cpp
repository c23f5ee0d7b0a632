#include "ServiceManager.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstddef>
#include <cstdlib>
#include <cstring>

#include "KorvaneControllerServer.h"
#include "Logging.h"

ServiceManager::ServiceManager() {
  const char* const path = std::getenv("NOTIFY_SOCKET");
  if (path == nullptr || std::strlen(path) >= sizeof(sockaddr_un::sun_path)) return;
  path_ = path;
}

void ServiceManager::Tell(const KorvaneControllerServer& server,
                          const std::optional<FleetStatus::Summary>& summary) {
  if (!isReady_ && server.IsServing()) {
    isReady_ = true;
    Send("READY=1");
  }
  // A rebuild begins the count anew.
  const std::uint64_t ticks = server.Ticks();
  if (ticks != ticks_) Send("WATCHDOG=1");
  ticks_ = ticks;
  if (!summary) return;
  if (summary->lastReport == 0) return Send("STATUS=no report yet");
  Send(fmt::format("STATUS={} instance{}, {} camera{}, last report {} s ago", summary->instances,
                   summary->instances == 1 ? "" : "s", summary->cameras, summary->cameras == 1 ? "" : "s",
                   summary->time - summary->lastReport));
}

// A manager that does not listen is not waited for.
void ServiceManager::Send(std::string_view message) const {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::memcpy(address.sun_path, path_.data(), path_.size());
  if (address.sun_path[0] == '@') address.sun_path[0] = '\0';  // the abstract namespace, unix(7)
  const int socket = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (socket == -1) return;
  sendto(socket, message.data(), message.size(), MSG_DONTWAIT | MSG_NOSIGNAL,
         reinterpret_cast<const sockaddr*>(&address),
         static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + path_.size()));
  close(socket);
}
