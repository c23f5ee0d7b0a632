#include "UgsClient.h"

#include <algorithm>
#include <charconv>
#include <random>
#include <stdexcept>
#include <utility>

#include "Connection.h"
#include "Sealer.h"
#include "Secrets.h"
#include "UGSDefs.h"

namespace ugs {
namespace {

using std::chrono::milliseconds;
using Clock = std::chrono::steady_clock;

constexpr milliseconds kFirstRetry(1000);

}  // namespace

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

Client::Client(std::string_view server, const std::string& key, milliseconds replyTimeout)
    : connection_(std::make_unique<Connection>(ParseAddress(server), key, replyTimeout)) {}
Client::~Client() = default;
Client::Client(Client&&) noexcept = default;
Client& Client::operator=(Client&&) noexcept = default;

std::optional<int> Client::Report(const Usage& usage) {
  std::string document = WriteDocument(usage);
  const WipeOnExit wipe(document);
  return connection_->Request(document);
}
std::optional<int> Client::SendDocument(std::string_view document) {
  return connection_->Request(document);
}
std::optional<int> Client::Greet() {
  return connection_->Request(UGSDefs::kGreeting);
}
void Client::Interrupt() {
  connection_->Interrupt();
}

Reporter::Reporter(std::string_view server, const std::string& key, Source usage, milliseconds period,
                   Listener answered, milliseconds replyTimeout)
    : usage_(std::move(usage)),
      answered_(std::move(answered)),
      period_(period),
      client_(server, key, replyTimeout) {
  if (period <= milliseconds(0)) throw std::invalid_argument("the period must be positive");
  thread_ = std::thread(&Reporter::Run, this);
}

Reporter::~Reporter() {
  stop_ = true;  // before the interrupt, whose waiter looks at it
  client_.Interrupt();
  thread_.join();
}

std::optional<int> Reporter::ReportOnce() {
  try {
    return client_.Report(usage_());
  } catch (const std::exception&) {
    return std::nullopt;  // a thread of somebody else's process must not end it
  }
}

void Reporter::Run() {
  std::minstd_rand random(std::random_device{}());
  const auto between = [&random](milliseconds least, milliseconds most) {
    return milliseconds(std::uniform_int_distribution(least.count(), most.count())(random));
  };
  // A random moment of the first period: instances that start together do not report together.
  Clock::time_point due = Clock::now() + between(milliseconds(0), period_);
  milliseconds retry = std::min(kFirstRetry, period_);
  while (client_.connection_->SleepUntil(due) && !stop_) {
    const std::optional<int> code = ReportOnce();
    if (stop_) break;
    if (answered_) answered_(code);
    if (code) {
      retry = std::min(kFirstRetry, period_);
      while (due <= Clock::now()) due += period_;  // from the time it was due, so that delays do not add up
    } else {
      // Spread, lest all instances of a server that was restarted come back at one moment.
      due = Clock::now() + between(retry / 2, retry * 3 / 2);
      retry = std::min(retry * 2, period_);
    }
  }
}

}  // namespace ugs
