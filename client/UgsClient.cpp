#include "UgsClient.h"

#include <charconv>
#include <limits>
#include <stdexcept>
#include <utility>

#include "Connection.h"
#include "Secrets.h"
#include "UGSDefs.h"

namespace ugs {

std::string Version() {
  return UGS_CLIENT_VERSION;
}

void Usage::SetCount(const std::string& name, std::int64_t count) {
  if (count < 0 || count > std::numeric_limits<std::uint32_t>::max()) {
    throw std::invalid_argument("count " + name + " is " + std::to_string(count) +
                                ", not from 0 to 4294967295");
  }
  counts[name] = static_cast<std::uint32_t>(count);
}

Address ParseAddress(std::string_view server) {
  Address address{std::string(server), UGSDefs::kPort};
  // IPv6 addresses are refused below: the server listens on IPv4 only.
  if (const std::size_t colon = server.rfind(':'); colon != std::string_view::npos) {
    address.host.resize(colon);
    const char* end = server.data() + server.size();
    const auto [last, error] = std::from_chars(server.data() + colon + 1, end, address.port);
    if (error != std::errc() || last != end) address.port = 0;
  }
  if (address.host.empty() || address.host.find(':') != std::string::npos || address.port == 0) {
    throw std::invalid_argument("\"" + std::string(server) + "\" is not HOST or HOST:PORT");
  }
  return address;
}

Client::Client(std::string_view server, const std::string& key, std::chrono::milliseconds replyTimeout)
    : connection_(std::make_unique<Connection>(server, key, replyTimeout)) {}

Client::~Client() {
  // In a child of the process that made it, the threads are missing that closing its sockets would wait for.
  if (connection_ != nullptr && connection_->IsForeign()) static_cast<void>(connection_.release());
}

Client::Client(Client&&) noexcept = default;
Client& Client::operator=(Client&& other) noexcept {
  Client old(std::move(*this));  // ends as any client does
  connection_ = std::move(other.connection_);
  return *this;
}

Client::Connection& Client::Get() const {
  if (connection_ == nullptr) throw std::logic_error("this client was moved away");
  return *connection_;
}

std::optional<int> Client::Report(const Usage& usage) {
  Connection& connection = Get();
  std::string document;
  const WipeOnExit wipe(document);
  try {
    document = WriteDocument(usage);
  } catch (const std::exception& error) {
    connection.lastError = {ErrorKind::BadUsage, error.what()};
    throw;
  }
  return SendDocument(document);
}

std::optional<int> Client::SendDocument(std::string_view document) {
  return Ask([&](Connection& connection) { return connection.Request(document); });
}

std::optional<int> Client::SendSealed(std::string_view payload) {
  return Ask([&](Connection& connection) { return connection.RequestSealed(std::string(payload)); });
}

std::optional<int> Client::Greet() {
  return SendDocument(UGSDefs::kGreeting);
}

template <typename Question>
std::optional<int> Client::Ask(Question question) {
  Connection& connection = Get();
  try {
    Outcome outcome = question(connection);
    connection.lastError = {outcome.kind, std::move(outcome.text)};
    return outcome.code;
  } catch (const std::exception& error) {
    connection.lastError = {connection.IsForeign() ? ErrorKind::BadUsage : ErrorKind::CannotSeal,
                            error.what()};
    throw;
  }
}

std::optional<int> Client::SignOff(Usage usage) {
  usage.counts.clear();
  return Report(usage);
}

const Error& Client::LastError() const {
  return Get().lastError;
}

Counters Client::GetCounters() const {
  return Get().GetCounters();
}

void Client::Interrupt() {
  Get().Interrupt();
}

}  // namespace ugs
