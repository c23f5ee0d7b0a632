#include "Page.h"

#include <microhttpd.h>
#include <netdb.h>
#include <sys/socket.h>

#include <cerrno>
#include <csignal>
#include <cstddef>
#include <ctime>
#include <exception>
#include <iostream>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <system_error>
#include <utility>

#include "FileDescriptor.h"
#include "HistoryPages.h"
#include "HistoryRecorder.h"
#include "PageEvents.h"
#include "PageSite.h"
#include "PageView.h"
#include "PageWatcher.h"
#include "SignalFile.h"

namespace {

using Endpoint = std::unique_ptr<addrinfo, decltype(&freeaddrinfo)>;

Endpoint FindEndpoint(const PageOptions& options) {
  addrinfo hints{};
  hints.ai_flags = AI_NUMERICHOST | AI_NUMERICSERV | AI_PASSIVE;
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* found = nullptr;
  if (getaddrinfo(options.address.c_str(), std::to_string(options.port).c_str(), &hints, &found) != 0) {
    throw std::invalid_argument("--address " + options.address +
                                " is no numeric IP address, as 127.0.0.1 is");
  }
  return {found, &freeaddrinfo};
}

// The library's MHD_AccessHandlerCallback: called once after the headers, then for each part of a body, then
// at the request's end. An answer at the first call closes the connection, which is right for a body nobody
// wants.
MHD_Result Handle(void* site, MHD_Connection* connection, const char* path, const char* method,
                  const char* /*version*/, const char* /*part*/, std::size_t* partSize,
                  void** request) noexcept try {
  auto& ours = *static_cast<PageSite*>(site);
  const std::string_view asked = method;
  if (asked != MHD_HTTP_METHOD_GET && asked != MHD_HTTP_METHOD_HEAD) return ours.RefuseMethod(connection);
  if (*request == nullptr) {
    *request = site;  // any pointer says that this request was seen
    return MHD_YES;
  }
  if (*partSize != 0) {
    *partSize = 0;
    return MHD_YES;
  }
  return ours.Reply(connection, path);
} catch (const std::exception&) {
  return MHD_NO;  // out of memory: closes this connection alone
}

using Daemon = std::unique_ptr<MHD_Daemon, decltype(&MHD_stop_daemon)>;

Daemon StartDaemon(const addrinfo& endpoint, PageSite& site, const std::string& url) {
  constexpr unsigned kConnections = 200;
  constexpr unsigned kIdleSeconds = 10;
  unsigned flags = MHD_USE_EPOLL_INTERNAL_THREAD | MHD_ALLOW_SUSPEND_RESUME;
  if (endpoint.ai_family == AF_INET6) flags |= MHD_USE_IPv6;
  errno = 0;
  Daemon daemon(MHD_start_daemon(flags, 0, nullptr, nullptr, &Handle, &site, MHD_OPTION_SOCK_ADDR,
                                 endpoint.ai_addr, MHD_OPTION_CONNECTION_LIMIT, kConnections,
                                 MHD_OPTION_CONNECTION_TIMEOUT, kIdleSeconds, MHD_OPTION_END),
                &MHD_stop_daemon);
  if (!daemon) throw std::system_error(errno, std::generic_category(), "cannot listen on " + url);
  return daemon;
}

// The library cannot be stopped while a stream waits: this must be destroyed before its daemon.
struct EndOfEvents {
  PageEvents& events;
  ~EndOfEvents() { events.End(); }
};

}  // namespace

void ServePage(const PageOptions& options) {
  const Endpoint endpoint = FindEndpoint(options);
  const std::string host = endpoint->ai_family == AF_INET6 ? "[" + options.address + "]" : options.address;
  // Before the library's thread exists, so that it leaves both signals to the watcher.
  const FileDescriptor signals = SignalFile({SIGINT, SIGTERM});
  const std::string url = "http://" + host + ":" + std::to_string(options.port) + "/";
  Newest newest;
  PageEvents events(!options.history.empty());
  std::optional<HistoryRecorder> recorder;
  PageSite::History history;
  if (!options.history.empty()) {
    recorder.emplace(options.history, [&] { return newest.Snapshot(); });
    history = [&](const HistoryQuestion& question) {
      return AnswerFromHistory(options.history, question, std::time(nullptr), recorder->Trouble());
    };
  }
  PageSite site(newest, events, history, host, options.port);
  const Daemon daemon = StartDaemon(*endpoint, site, url);
  std::cout << "The page: " << url << " (Ctrl-C ends it)" << std::endl;
  const EndOfEvents end{events};
  PageWatcher watcher(options.socket, [&](const SharedView& view) {
    newest.Set(view);
    events.Publish(view);
  });
  watcher.RunUntil(signals);
}
