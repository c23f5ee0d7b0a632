#include <chrono>
#include <memory>
#include <mutex>
#include <new>
#include <stdexcept>
#include <system_error>
#include <utility>

#include "Mutex.h"
#include "UgsClient.h"
#include "ugs_client.h"

using std::chrono::milliseconds;
using ugs::ErrorKind;

static_assert(sizeof(long) >= sizeof(std::int64_t), "a count of 4294967295 must fit into a long");

constexpr bool IsSame(ugs_error error, ErrorKind kind) {
  return static_cast<int>(error) == static_cast<int>(kind);
}
static_assert(IsSame(UGS_OK, ErrorKind::None) && IsSame(UGS_NO_SUCH_HOST, ErrorKind::NoSuchHost) &&
              IsSame(UGS_NOT_CONNECTED, ErrorKind::NotConnected) &&
              IsSame(UGS_NO_ANSWER, ErrorKind::NoAnswer) && IsSame(UGS_REFUSED, ErrorKind::Refused) &&
              IsSame(UGS_CANNOT_SEAL, ErrorKind::CannotSeal) && IsSame(UGS_BAD_USAGE, ErrorKind::BadUsage));

struct ugs_usage {
  ugs::Usage usage;
  std::string defect = {};  // what a call said that failed
};

struct ugs_client {
  ugs::Client client;
  ugs::Error lastError = {};
};

namespace {

// What a reporter's thread shares with its host's. The thread holds it, too, so it outlives a reporter that
// its own listener stops.
struct Shared {
  explicit Shared(ugs::Usage first) : usage(std::move(first)) {}

  ugs::Mutex usageMutex;
  ugs::Usage usage UGS_GUARDED_BY(usageMutex);
  ugs::Mutex outcomeMutex;
  ugs::Outcome outcome UGS_GUARDED_BY(outcomeMutex);  // the newest
};

thread_local ugs::Error threadError;

void Keep(ugs::Error& error, ErrorKind kind, const char* text) {
  error.kind = kind;
  try {
    error.text = text;
  } catch (const std::bad_alloc&) {
    error.text.clear();
  }
}

bool IsLackOfResources(const std::exception& error) {
  return dynamic_cast<const std::system_error*>(&error) != nullptr ||
         dynamic_cast<const std::bad_alloc*>(&error) != nullptr;
}

// For calls without a client. Returns `failure` if `call` throws.
template <typename Result, typename Call>
Result Guarded(Result failure, Call call) {
  try {
    return call();
  } catch (const std::exception& error) {
    Keep(threadError, IsLackOfResources(error) ? ErrorKind::NotConnected : ErrorKind::BadUsage, error.what());
    return failure;
  }
}

template <typename T>
T* Required(T* argument, const char* name) {
  if (argument == nullptr) throw std::invalid_argument(std::string(name) + " is NULL");
  return argument;
}

// There is probably none because of this thread's last failure, whose text is of more use.
template <typename T>
T* Handle(T* handle, const char* name) {
  if (handle == nullptr && !threadError.text.empty()) throw std::invalid_argument(threadError.text);
  return Required(handle, name);
}

const ugs::Usage& Sound(const ugs_usage* usage) {
  if (!Handle(usage, "usage")->defect.empty()) throw std::invalid_argument(usage->defect);
  return usage->usage;
}

// What would be refused later is refused now.
const ugs::Usage& Reportable(const ugs_usage* usage) {
  static_cast<void>(ugs::WriteDocument(Sound(usage)));
  return usage->usage;
}

milliseconds Timeout(long timeout) {
  if (timeout == -1) return milliseconds::max();
  if (timeout > 0) return milliseconds(timeout);
  throw std::invalid_argument("a time-out of " + std::to_string(timeout) + " ms is neither positive nor -1");
}

// One request.
template <typename Request>
int Ask(ugs_client* client, Request request) {
  if (client == nullptr) return Guarded(-1, [&] { return Handle(client, "client"), 0; });
  try {
    const std::optional<int> code = request(client->client);
    client->lastError = client->client.LastError();
    return code.value_or(-1);
  } catch (const std::invalid_argument& error) {
    Keep(client->lastError, ErrorKind::BadUsage, error.what());
  } catch (const std::bad_alloc& error) {
    Keep(client->lastError, ErrorKind::NotConnected, error.what());
  } catch (const std::exception& error) {
    Keep(client->lastError, client->client.LastError().kind, error.what());
  }
  return -1;
}

template <typename Change>
int Changed(ugs_usage* usage, Change change) {
  return Guarded(-1, [&] {
    Handle(usage, "usage");
    try {
      change(usage->usage);
    } catch (const std::exception& error) {
      usage->defect = error.what();
      throw;
    }
    return 0;
  });
}

int Copy(const ugs::Counters& from, ugs_counters* to) {
  *Required(to, "counters") = {};
  to->sent = from.sent;
  to->counted = from.counted;
  to->refused = from.refused;
  to->unanswered = from.unanswered;
  to->reconnects = from.reconnects;
  if (from.lastCounted) to->last_counted = std::chrono::system_clock::to_time_t(*from.lastCounted);
  return 0;
}

ugs::Reporter::Source SourceOf(std::shared_ptr<Shared> shared) {
  return [shared = std::move(shared)] {
    const ugs::MutexLock lock(shared->usageMutex);
    return shared->usage;
  };
}

ugs::Reporter::OutcomeListener ListenerOf(std::shared_ptr<Shared> shared, ugs_listener listener,
                                          void* context) {
  return [shared = std::move(shared), listener, context](const ugs::Outcome& outcome) {
    // Not waited for: in the child of a fork it may be held for ever.
    if (shared->outcomeMutex.TryLock()) {
      const ugs::MutexLock lock(shared->outcomeMutex, std::adopt_lock);
      shared->outcome = outcome;
    }
    if (listener == nullptr) return;
    listener(context, outcome.code.value_or(-1), static_cast<ugs_error>(outcome.kind), outcome.text.c_str());
  };
}

}  // namespace

struct ugs_reporter {
  ugs_reporter(const char* server, const char* key, const ugs::Usage& usage, milliseconds period,
               milliseconds timeout, ugs_listener listener, void* context)
      : shared(std::make_shared<Shared>(usage)),
        reporter(server, key, SourceOf(shared), period, ListenerOf(shared, listener, context), timeout) {}

  const std::shared_ptr<Shared> shared;
  ugs::Reporter reporter;
};

const char* ugs_version() {
  return UGS_CLIENT_VERSION;
}

ugs_usage* ugs_usage_new(const char* id) {
  return Guarded<ugs_usage*>(
      nullptr, [&] { return std::make_unique<ugs_usage>(ugs_usage{{.id = Required(id, "id")}}).release(); });
}

ugs_usage* ugs_usage_parse(const char* json) {
  return Guarded<ugs_usage*>(nullptr, [&] {
    return std::make_unique<ugs_usage>(ugs_usage{ugs::ReadDocument(Required(json, "json"))}).release();
  });
}

int ugs_usage_set_container(ugs_usage* usage, const char* container) {
  return Changed(usage, [&](ugs::Usage& changed) { changed.container = Required(container, "container"); });
}

int ugs_usage_set_layout(ugs_usage* usage, const char* layout) {
  return Changed(usage, [&](ugs::Usage& changed) {
    static_cast<void>(ugs::CountKeys(Required(layout, "layout")));  // throws for an unknown one
    changed.layout = layout;
  });
}

int ugs_usage_add_camera(ugs_usage* usage, const char* url) {
  return Changed(usage, [&](ugs::Usage& changed) { changed.cameras.emplace_back(Required(url, "url")); });
}

int ugs_usage_set_count(ugs_usage* usage, const char* name, long count) {
  return Changed(usage, [&](ugs::Usage& changed) { changed.SetCount(Required(name, "name"), count); });
}

void ugs_usage_free(ugs_usage* usage) {
  const std::unique_ptr<ugs_usage> owned(usage);
}

ugs_client* ugs_open(const char* server, const char* key, long timeout_ms) {
  return Guarded<ugs_client*>(nullptr, [&] {
    ugs::Client client(Required(server, "server"), Required(key, "key"), Timeout(timeout_ms));
    return std::make_unique<ugs_client>(ugs_client{std::move(client)}).release();
  });
}

int ugs_greet(ugs_client* client) {
  return Ask(client, [](ugs::Client& asked) { return asked.Greet(); });
}

int ugs_report(ugs_client* client, const ugs_usage* usage) {
  return Ask(client, [&](ugs::Client& asked) { return asked.Report(Sound(usage)); });
}

int ugs_send_document(ugs_client* client, const char* document, size_t size) {
  return Ask(client, [&](ugs::Client& asked) {
    return asked.SendDocument({Required(document, "document"), size});
  });
}

int ugs_send_sealed(ugs_client* client, const char* payload, size_t size) {
  return Ask(client, [&](ugs::Client& asked) {
    return asked.SendSealed({Required(payload, "payload"), size});
  });
}

int ugs_sign_off(ugs_client* client, const ugs_usage* usage) {
  return Ask(client, [&](ugs::Client& asked) { return asked.SignOff(Sound(usage)); });
}

void ugs_interrupt(ugs_client* client) {
  if (client != nullptr) client->client.Interrupt();
}

int ugs_get_counters(const ugs_client* client, ugs_counters* counters) {
  return Guarded(-1, [&] { return Copy(Handle(client, "client")->client.GetCounters(), counters); });
}

ugs_error ugs_last_error(const ugs_client* client) {
  return static_cast<ugs_error>((client == nullptr ? threadError : client->lastError).kind);
}

const char* ugs_last_error_text(const ugs_client* client) {
  return (client == nullptr ? threadError : client->lastError).text.c_str();
}

void ugs_close(ugs_client* client) {
  const std::unique_ptr<ugs_client> owned(client);
}

ugs_reporter* ugs_reporter_start(const char* server, const char* key, const ugs_usage* usage, long period_ms,
                                 long timeout_ms, ugs_listener listener, void* context) {
  return Guarded<ugs_reporter*>(nullptr, [&] {
    return std::make_unique<ugs_reporter>(Required(server, "server"), Required(key, "key"), Reportable(usage),
                                          milliseconds(period_ms), Timeout(timeout_ms), listener, context)
        .release();
  });
}

int ugs_reporter_update(ugs_reporter* reporter, const ugs_usage* usage) {
  return Guarded(-1, [&] {
    // Throws in the child of a fork, where the lock may be held for ever.
    static_cast<void>(Handle(reporter, "reporter")->reporter.GetCounters());
    ugs::Usage next = Reportable(usage);
    {
      const ugs::MutexLock lock(reporter->shared->usageMutex);
      reporter->shared->usage = std::move(next);
    }
    reporter->reporter.ReportNow();
    return 0;
  });
}

int ugs_reporter_sign_off(ugs_reporter* reporter) {
  return Guarded(-1, [&] {
    const std::optional<int> code = Handle(reporter, "reporter")->reporter.SignOff();
    const ugs::Outcome outcome = [&shared = *reporter->shared] {
      const ugs::MutexLock lock(shared.outcomeMutex);
      return shared.outcome;
    }();
    if (outcome.kind != ErrorKind::None)
      Keep(threadError, outcome.kind, outcome.text.c_str());
    else if (!code)
      Keep(threadError, ErrorKind::NoAnswer, "the sign-off was interrupted");
    return code.value_or(-1);
  });
}

void ugs_reporter_interrupt(ugs_reporter* reporter) {
  if (reporter != nullptr) reporter->reporter.Interrupt();
}

int ugs_reporter_get_counters(const ugs_reporter* reporter, ugs_counters* counters) {
  return Guarded(-1, [&] { return Copy(Handle(reporter, "reporter")->reporter.GetCounters(), counters); });
}

void ugs_reporter_stop(ugs_reporter* reporter) {
  const std::unique_ptr<ugs_reporter> owned(reporter);
}
