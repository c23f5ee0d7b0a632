#include "Page.h"

#include <fmt/format.h>
#include <microhttpd.h>
#include <netdb.h>
#include <poll.h>
#include <pthread.h>
#include <sys/signalfd.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstddef>
#include <ctime>
#include <functional>
#include <iostream>
#include <map>
#include <memory>
#include <mutex>
#include <new>
#include <optional>
#include <stdexcept>
#include <string_view>
#include <system_error>
#include <utility>
#include <vector>

#include "FileDescriptor.h"
#include "HistoryPages.h"
#include "HistoryRecorder.h"
#include "JsonOutput.h"
#include "Metrics.h"
#include "PageFiles.h"
#include "Status.h"
#include "StatusJson.h"

namespace {

using Clock = std::chrono::steady_clock;

// What is known of the server at one time.
struct View {
  std::optional<StatusSnapshot> snapshot;
  std::string trouble;      // why there is none
  std::int64_t starts = 0;  // of the server, that were seen
};
using SharedView = std::shared_ptr<const View>;

// The newest view. Any thread.
class Newest {
 public:
  void Set(View view) {
    auto shared = std::make_shared<const View>(std::move(view));
    const std::lock_guard lock(mutex_);
    view_.swap(shared);  // the old one dies outside the lock
  }

  [[nodiscard]] SharedView Get() const {
    const std::lock_guard lock(mutex_);
    return view_;
  }

  // Null while there is none.
  [[nodiscard]] std::shared_ptr<const StatusSnapshot> Snapshot() const {
    SharedView view = Get();
    const StatusSnapshot* snapshot = view->snapshot ? &*view->snapshot : nullptr;
    return {std::move(view), snapshot};
  }

 private:
  mutable std::mutex mutex_;
  SharedView view_ = std::make_shared<const View>(View{std::nullopt, "the server was not asked yet", 0});
};

// Asks the server for its status once a second, on the thread that waits for the end.
class Watcher {
 public:
  Watcher(std::string socket, Newest& newest) : socket_(std::move(socket)), newest_(newest) {}

  // Returns once `signals` has one.
  void RunUntil(const FileDescriptor& signals) {
    while (true) {
      std::array<pollfd, 2> items{
          {{signals.Number(), POLLIN, 0}, {connection_ ? connection_->Descriptor() : -1, POLLIN, 0}}};
      poll(items.data(), items.size(), static_cast<int>(UntilDue().count()));
      if (items[0].revents != 0) return;
      try {
        Look(items[1].revents != 0);
      } catch (const std::exception& error) {
        connection_.reset();
        newest_.Set({std::nullopt, error.what(), starts_});
      }
    }
  }

 private:
  static constexpr std::chrono::seconds kPeriod{1};
  static constexpr std::chrono::seconds kPatience{5};

  // Until the next question, or until the wait for this answer is given up.
  [[nodiscard]] std::chrono::milliseconds UntilDue() const {
    const auto due = asked_ + (connection_ ? kPatience : kPeriod);
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(due - Clock::now());
    return std::max(left, std::chrono::milliseconds(0));
  }

  void Look(bool isReadable) {
    if (isReadable) Receive();
    if (UntilDue().count() > 0) return;
    if (connection_) {
      connection_.reset();
      throw NoStatus("the server at " + socket_ + " does not tell its status");
    }
    asked_ = Clock::now();
    connection_ = std::make_unique<StatusConnection>(socket_);
  }

  void Receive() {
    std::optional<StatusSnapshot> snapshot = connection_->Receive();
    if (!snapshot) return;
    connection_.reset();
    if (snapshot->server.started != started_) ++starts_;
    started_ = snapshot->server.started;
    newest_.Set({std::move(snapshot), {}, starts_});
  }

  const std::string socket_;
  Newest& newest_;
  std::unique_ptr<StatusConnection> connection_;
  Clock::time_point asked_ = Clock::now() - kPeriod;
  std::int64_t started_ = 0;  // of the server that answered last
  std::int64_t starts_ = 0;
};

using Response = std::unique_ptr<MHD_Response, decltype(&MHD_destroy_response)>;

struct Answer {
  unsigned status = MHD_HTTP_OK;
  Response response{nullptr, MHD_destroy_response};
};

constexpr const char* kTextType = "text/plain; charset=utf-8";
constexpr const char* kJsonType = "application/json";

void AddHeader(const Answer& answer, const char* name, const char* value) {
  if (MHD_add_response_header(answer.response.get(), name, value) != MHD_YES) throw std::bad_alloc();
}

Answer MakeAnswer(unsigned status, const char* type, std::string_view body) {
  Answer answer;
  answer.status = status;
  // The library copies the body; its parameter is not const for other modes.
  answer.response.reset(
      MHD_create_response_from_buffer(body.size(), const_cast<char*>(body.data()), MHD_RESPMEM_MUST_COPY));
  if (!answer.response) throw std::bad_alloc();
  AddHeader(answer, MHD_HTTP_HEADER_CONTENT_TYPE, type);
  AddHeader(answer, "Content-Security-Policy", "default-src 'self'");
  AddHeader(answer, "X-Content-Type-Options", "nosniff");
  AddHeader(answer, "Cache-Control", "no-store");
  AddHeader(answer, "Referrer-Policy", "no-referrer");
  return answer;
}

Answer MakeJson(const View& view, std::string (*write)(const StatusSnapshot&)) {
  if (view.snapshot) return MakeAnswer(MHD_HTTP_OK, kJsonType, write(*view.snapshot));
  JsonOutput json;
  json->StartObject();
  json.Put("error", view.trouble);
  json->EndObject();
  return MakeAnswer(MHD_HTTP_SERVICE_UNAVAILABLE, kJsonType, json.Text());
}

Answer MakeMetrics(const View& view, MetricsOptions options) {
  options.starts = view.starts;
  const StatusSnapshot* snapshot = view.snapshot ? &*view.snapshot : nullptr;
  return MakeAnswer(MHD_HTTP_OK, ContentTypeOf(options.form), MetricsOf(snapshot, options));
}

// What the client asks for, among what may stand after /metrics.
MetricsOptions MetricsAsked(MHD_Connection* connection) {
  const auto valueOf = [&](MHD_ValueKind kind, const char* name) {
    const char* value = MHD_lookup_connection_value(connection, kind, name);
    return std::string_view(value != nullptr ? value : "");
  };
  MetricsOptions options;
  options.form = FormAccepted(valueOf(MHD_HEADER_KIND, MHD_HTTP_HEADER_ACCEPT));
  const std::string_view instances = valueOf(MHD_GET_ARGUMENT_KIND, "instances");
  if (instances == "1") options.instances = MetricsOptions::Instances::All;
  if (instances == "silent") options.instances = MetricsOptions::Instances::Silent;
  return options;
}

std::string InLowerCase(std::string_view text) {
  std::string lower(text);
  for (char& character : lower) {
    if (character >= 'A' && character <= 'Z') character = static_cast<char>(character - 'A' + 'a');
  }
  return lower;
}

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

// Answers from the history; empty if none is kept.
using History = std::function<HistoryAnswer(const HistoryQuestion&)>;

std::optional<std::string> ParameterOf(MHD_Connection* connection, const char* name) {
  const char* value = MHD_lookup_connection_value(connection, MHD_GET_ARGUMENT_KIND, name);
  return value == nullptr ? std::nullopt : std::optional<std::string>(value);
}

// Answers requests. Thread: the library's alone, once that runs.
class Site {
 public:
  Site(const Newest& newest, const std::string& host, std::uint16_t port, History history)
      : newest_(newest),
        history_(std::move(history)),
        hosts_{"localhost", "127.0.0.1", "[::1]", InLowerCase(host)},
        port_(":" + std::to_string(port)) {}

  const Answer& Answered(MHD_Connection* connection, std::string_view path) {
    if (!IsOurs(MHD_lookup_connection_value(connection, MHD_HEADER_KIND, MHD_HTTP_HEADER_HOST)))
      return foreign_;
    const auto page = files_.find(path);
    if (page != files_.end()) return page->second;
    if (history_ && IsOfHistory(path)) {
      return OfHistory({std::string(path), ParameterOf(connection, "month"), ParameterOf(connection, "key")});
    }
    return OfView(path, MetricsAsked(connection));
  }

  [[nodiscard]] const Answer& NotAllowed() const { return notAllowed_; }

 private:
  // Another name in Host is a page elsewhere that had its own name resolved to this address.
  [[nodiscard]] bool IsOurs(const char* header) const {
    if (header == nullptr) return false;
    std::string host = InLowerCase(header);
    if (host.ends_with(port_)) host.resize(host.size() - port_.size());
    return std::find(hosts_.begin(), hosts_.end(), host) != hosts_.end();
  }

  // What depends on the view is made once for each, however many ask.
  const Answer& OfView(std::string_view path, const MetricsOptions& metrics) {
    Refresh();
    if (path == "/status") return Made("/status", [&] { return MakeJson(*view_, JsonOf); });
    if (path == "/instances") return Made("/instances", [&] { return MakeJson(*view_, InstancesJsonOf); });
    if (path == "/metrics") {
      const std::string name =
          fmt::format("/metrics {} {}", static_cast<int>(metrics.form), static_cast<int>(metrics.instances));
      return Made(name, [&] { return MakeMetrics(*view_, metrics); });
    }
    return notFound_;
  }

  const Answer& OfHistory(const HistoryQuestion& question) {
    Refresh();
    return Made(question.path + "?" + question.month.value_or("none") + "&" + question.key.value_or("none"),
                [&] {
                  const HistoryAnswer answer = history_(question);
                  return MakeAnswer(answer.status, answer.type, answer.body);
                });
  }

  void Refresh() {
    SharedView newest = newest_.Get();
    if (newest != view_) made_.clear();
    view_ = std::move(newest);
  }

  const Answer& Made(const std::string& name, const std::function<Answer()>& make) {
    const auto made = made_.find(name);
    return made != made_.end() ? made->second : made_.emplace(name, make()).first->second;
  }

  static std::map<std::string, Answer, std::less<>> MakeFiles() {
    std::map<std::string, Answer, std::less<>> files;
    files.emplace("/", MakeAnswer(MHD_HTTP_OK, "text/html; charset=utf-8", kPageHtml));
    files.emplace("/page.css", MakeAnswer(MHD_HTTP_OK, "text/css; charset=utf-8", kPageCss));
    files.emplace("/page.js", MakeAnswer(MHD_HTTP_OK, "text/javascript; charset=utf-8", kPageJs));
    return files;
  }

  static Answer MakeNotAllowed() {
    Answer answer = MakeAnswer(MHD_HTTP_METHOD_NOT_ALLOWED, kTextType, "only GET and HEAD\n");
    AddHeader(answer, MHD_HTTP_HEADER_ALLOW, "GET, HEAD");
    return answer;
  }

  const Newest& newest_;
  const History history_;
  const std::vector<std::string> hosts_;
  const std::string port_;
  const std::map<std::string, Answer, std::less<>> files_ = MakeFiles();
  const Answer foreign_ =
      MakeAnswer(MHD_HTTP_FORBIDDEN, kTextType, "this is not the host that you asked for\n");
  const Answer notAllowed_ = MakeNotAllowed();
  const Answer notFound_ = MakeAnswer(MHD_HTTP_NOT_FOUND, kTextType, "there is no such page\n");
  SharedView view_;
  std::map<std::string, Answer> made_;
};

MHD_Result Queue(MHD_Connection* connection, const Answer& answer) {
  return MHD_queue_response(connection, answer.status, answer.response.get());
}

// The library's MHD_AccessHandlerCallback: called once after the headers, then for each part of a body, then
// at the request's end. An answer at the first call closes the connection, which is right for a body nobody
// wants.
MHD_Result Handle(void* site, MHD_Connection* connection, const char* path, const char* method,
                  const char* /*version*/, const char* /*part*/, std::size_t* partSize,
                  void** request) noexcept try {
  auto& ours = *static_cast<Site*>(site);
  const std::string_view asked = method;
  if (asked != MHD_HTTP_METHOD_GET && asked != MHD_HTTP_METHOD_HEAD)
    return Queue(connection, ours.NotAllowed());
  if (*request == nullptr) {
    *request = site;  // any pointer says that this request was seen
    return MHD_YES;
  }
  if (*partSize != 0) {
    *partSize = 0;
    return MHD_YES;
  }
  return Queue(connection, ours.Answered(connection, path));
} catch (const std::exception&) {
  return MHD_NO;  // out of memory: closes this connection alone
}

using Daemon = std::unique_ptr<MHD_Daemon, decltype(&MHD_stop_daemon)>;

Daemon StartDaemon(const addrinfo& endpoint, Site& site, const std::string& url) {
  constexpr unsigned kConnections = 200;
  constexpr unsigned kIdleSeconds = 10;
  unsigned flags = MHD_USE_EPOLL_INTERNAL_THREAD;
  if (endpoint.ai_family == AF_INET6) flags |= MHD_USE_IPv6;
  errno = 0;
  Daemon daemon(MHD_start_daemon(flags, 0, nullptr, nullptr, &Handle, &site, MHD_OPTION_SOCK_ADDR,
                                 endpoint.ai_addr, MHD_OPTION_CONNECTION_LIMIT, kConnections,
                                 MHD_OPTION_CONNECTION_TIMEOUT, kIdleSeconds, MHD_OPTION_END),
                &MHD_stop_daemon);
  if (!daemon) throw std::system_error(errno, std::generic_category(), "cannot listen on " + url);
  return daemon;
}

int BlockedSignals() {
  sigset_t ending;
  sigemptyset(&ending);
  sigaddset(&ending, SIGINT);
  sigaddset(&ending, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &ending, nullptr);
  return signalfd(-1, &ending, SFD_CLOEXEC | SFD_NONBLOCK);
}

}  // namespace

void ServePage(const PageOptions& options) {
  const Endpoint endpoint = FindEndpoint(options);
  const std::string host = endpoint->ai_family == AF_INET6 ? "[" + options.address + "]" : options.address;
  // Before the library's thread exists, so that it leaves both signals to the watcher.
  const FileDescriptor signals(BlockedSignals(), "signalfd");
  const std::string url = "http://" + host + ":" + std::to_string(options.port) + "/";
  Newest newest;
  std::optional<HistoryRecorder> recorder;
  History history;
  if (!options.history.empty()) {
    recorder.emplace(options.history, [&] { return newest.Snapshot(); });
    history = [&](const HistoryQuestion& question) {
      return AnswerFromHistory(options.history, question, std::time(nullptr), recorder->Trouble());
    };
  }
  Site site(newest, host, options.port, history);
  const Daemon daemon = StartDaemon(*endpoint, site, url);
  std::cout << "The page: " << url << " (Ctrl-C ends it)" << std::endl;
  Watcher(options.socket, newest).RunUntil(signals);
}
