// Reporting to a KorvaneUGS server, from C++17 on. In a few lines:
//
//   ugs::Usage usage;
//   usage.id = "hall-7";
//   usage.cameras = {"rtsp://10.0.0.9/1"};
//   usage.SetCount("MaxCameras", 4);
//   ugs::Client client("10.0.0.5", "public.pem");
//   if (client.Report(usage) != 0) std::puts(client.LastError().text.c_str());
//
// Or let a ugs::Reporter do it over and over, a ugs::ReporterGroup for many instances. Keys and plaintexts
// are wiped when a report is sealed.
//
// The library's threads block all signals, and a signal that interrupts a call of a host's thread costs
// nothing.
//
// Neither clients nor reporters survive a fork(2) or daemon(3): make them afterwards. In the child, calls of
// those that the parent made throw std::runtime_error (Interrupt does nothing, LastError is the parent's),
// and their destructors let go of them without a wait. A child that lives for a second without exec(3) hears
// from the reporter's listener that nothing is reported there; it is called on a thread of its own.
//
// Only std:: exceptions are thrown. A host name is looked up on a thread that may outlive its client: do not
// unload the library.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#define UGS_API __attribute__((visibility("default")))
#define UGS_CLIENT_VERSION "1.0"  // of this interface

namespace ugs {

// UGS_CLIENT_VERSION of the library that is linked. Thread-safe.
UGS_API std::string Version();

// What one instance is using. The server identifies the instance by `id` followed by `cameras`, in order.
struct UGS_API Usage {
  std::string id = {};                               // not empty
  std::string container = {};                        // information only
  std::vector<std::string> cameras = {};             // RTSP URLs, at least one of them not empty
  std::map<std::string, std::uint32_t> counts = {};  // by JSON key ("MaxCameras"); those left out are 0
  std::string layout = "v6";                         // "legacy", "v4", "v5" or "v6"

  // Sets a count. Throws std::invalid_argument unless it is from 0 to 4294967295.
  void SetCount(const std::string& name, std::int64_t count);
};

// The names of all layouts, oldest first. Thread-safe.
UGS_API std::vector<std::string> LayoutNames();

// The keys that `layout` carries, in the order of the document. Thread-safe. Throws std::invalid_argument for
// an unknown layout.
UGS_API std::vector<std::string> CountKeys(std::string_view layout);

// The JSON document that reports `usage`. Thread-safe. Throws std::invalid_argument, with a text that names
// the field, for what the server would refuse or misread: an empty identity, no camera, a string that holds
// NUL or is not UTF-8, an unknown layout, a count that the layout does not carry.
UGS_API std::string WriteDocument(const Usage& usage);

// The inverse of WriteDocument, for documents that people write: a count that is left out is 0, and so may
// DockerID be left out. Thread-safe. Throws std::invalid_argument, with a text that names the member, for
// what is no such document: also for members and counts that the layout does not know.
UGS_API Usage ReadDocument(std::string_view json);

struct Address {
  std::string host;
  std::uint16_t port = 0;
};

// Reads HOST or HOST:PORT (port 9304 by default). Thread-safe. Throws std::invalid_argument otherwise.
UGS_API Address ParseAddress(std::string_view server);

enum class ErrorKind {
  None,
  NoSuchHost,    // the name does not resolve, or the resolver does not answer
  NotConnected,  // nobody accepts a connection
  NoAnswer,      // the request was sent, and no answer came in time or before the connection was lost
  Refused,       // the server answered, but did not count; its log says why
  CannotSeal,    // the key cannot encrypt
  BadUsage,      // what was to be reported cannot be, or the caller's source threw
};

struct Error {
  ErrorKind kind = ErrorKind::None;
  std::string text = {};  // for people; empty without an error
};

// How one request ended.
struct Outcome {
  std::optional<int> code = {};  // the server's: 0 counted, 1 hello, 2 refused
  ErrorKind kind = ErrorKind::None;
  std::string text = {};
};

// Since a client or reporter was made.
struct Counters {
  std::uint64_t sent = 0;        // requests of any kind
  std::uint64_t counted = 0;     // answered 0
  std::uint64_t refused = 0;     // answered 2
  std::uint64_t unanswered = 0;  // sent, and not answered
  std::uint64_t reconnects = 0;  // connections made after the first
  std::optional<std::chrono::system_clock::time_point> lastCounted = {};
};

// One instance's connection to the server. Not thread-safe: one thread at a time, except for Interrupt and
// GetCounters. The connection is made in the background, and again whenever it is lost.
//
// There is never more than one request in flight on a connection. A request that is not answered in time is
// given up together with its connection, so that the next one is not held up by it.
class UGS_API Client {
 public:
  // `key` is the server's public RSA key: PEM text ("BEGIN PUBLIC KEY") or the name of a file that holds it.
  // The file is read again after a refusal, so that a site's new key needs no restart. `replyTimeout` may be
  // milliseconds::max(), for ever. Does not block. Throws std::invalid_argument if `server` is not an
  // address, the file cannot be read, or the key is not one; std::system_error without free descriptors.
  Client(std::string_view server, const std::string& key,
         std::chrono::milliseconds replyTimeout = std::chrono::seconds(30));
  ~Client();                  // drops a request in flight; does not wait
  Client(Client&&) noexcept;  // of the other, every call but assignment and destruction throws
  Client& operator=(Client&&) noexcept;

  // Each of these seals one request, sends it and waits for the answer, for at most the reply time-out.
  // Returns the server's reply code, or nothing without an answer; LastError says why. Throws
  // std::runtime_error if the request cannot be sealed.
  std::optional<int> Report(const Usage& usage);  // 0 counted, 2 refused; throws as WriteDocument
  std::optional<int> SendDocument(std::string_view document);  // the same for any document, sent as it is
  std::optional<int> Greet();                                  // 1: the server is there and has our key
  std::optional<int> SendSealed(std::string_view payload);     // as it is: it was sealed elsewhere

  // Reports that `usage` has ended: all its counts are 0, so the server's sums fall now instead of after 120
  // s. Its record stays that long, with nothing in use.
  std::optional<int> SignOff(Usage usage);

  // Of the last call that returned or threw.
  [[nodiscard]] const Error& LastError() const;

  // Any thread.
  [[nodiscard]] Counters GetCounters() const;

  // Any thread. Makes the call that is waiting, or else the next one, return nothing at once.
  void Interrupt();

 private:
  class Connection;
  Connection& Get() const;
  template <typename Question>
  std::optional<int> Ask(Question question);
  std::unique_ptr<Connection> connection_;
};

// A reporter's period is from one to the other: the server forgets an instance after 120 s.
inline constexpr std::chrono::seconds kShortestPeriod(1);
inline constexpr std::chrono::seconds kLongestPeriod(118);

class ReporterLoop;

// Reports on a thread of its own, once a period, until it is destroyed. The first report comes at a random
// moment of the first period, so that a fleet started together does not report together. After a request
// without an answer comes another, fresh one, after a random pause of up to 10 s; from the second failure in
// a row on the pause doubles, up to 100 s.
class UGS_API Reporter {
 public:
  // All are called on the reporter's thread, and may throw anything: then nothing is sent, and the listener
  // hears of BadUsage; what a listener throws goes to the log. A listener may destroy its reporter.
  using Source = std::function<Usage()>;
  using Listener = std::function<void(std::optional<int> code)>;
  using OutcomeListener = std::function<void(const Outcome& outcome)>;
  using Log = std::function<void(const std::string& line)>;

  // With a period from 10 to 75 s and a reply time-out of 30 s, one lost report never costs the instance.
  // Throws as Client does; std::invalid_argument also for a `period` out of its range.
  Reporter(std::string_view server, const std::string& key, Source usage,
           std::chrono::milliseconds period = std::chrono::seconds(30), Listener answered = {},
           std::chrono::milliseconds replyTimeout = std::chrono::seconds(30));
  Reporter(std::string_view server, const std::string& key, Source usage, std::chrono::milliseconds period,
           OutcomeListener answered, std::chrono::milliseconds replyTimeout = std::chrono::seconds(30),
           Log log = {});
  // Gives up a report in flight; does not wait for the network. In a process forked from the one that made
  // it, lets go of it.
  ~Reporter();
  Reporter(const Reporter&) = delete;
  Reporter& operator=(const Reporter&) = delete;

  // Any thread. Reports at once, for a usage that has changed; the period begins anew.
  void ReportNow();

  // Sends a last report with all counts 0 (see Client::SignOff) and ends the reporting. Waits for its answer,
  // and before that for a report in flight, each for the reply time-out at most; nothing without one. Not
  // from a source or listener.
  std::optional<int> SignOff();

  // Any thread. Ends the reporting without waiting: a SignOff that waits in another thread returns nothing at
  // once. In a process forked from the one that made it, does nothing.
  void Interrupt();

  // Any thread.
  [[nodiscard]] Counters GetCounters() const;

 private:
  std::shared_ptr<ReporterLoop> loop_;
};

// Reports for many instances, each as a Reporter would, on one thread and over few connections: for a process
// that speaks for all containers of its machine. All calls may come from any thread, also from a source or
// listener, and return at once; of a name that has not joined, they do nothing.
class UGS_API ReporterGroup {
 public:
  using Source = Reporter::Source;
  using Log = Reporter::Log;
  // `name` is the one that joined; empty for what the group as a whole has to say, after a fork.
  using Listener = std::function<void(const std::string& name, const Outcome& outcome)>;

  // Reports for nobody yet. Parameters, threads and exceptions are those of Reporter.
  ReporterGroup(std::string_view server, const std::string& key,
                std::chrono::milliseconds period = std::chrono::seconds(30), Listener answered = {},
                std::chrono::milliseconds replyTimeout = std::chrono::seconds(30), Log log = {});
  ~ReporterGroup();  // as Reporter's
  ReporterGroup(const ReporterGroup&) = delete;
  ReporterGroup& operator=(const ReporterGroup&) = delete;

  // The first report comes at a random moment of the first period. With a name that has joined, the source is
  // replaced, and the instance reports at once.
  void Join(const std::string& name, Source usage);

  void ReportNow(const std::string& name);  // for a usage that has changed; its period begins anew

  // Sends a last report with all counts 0 (see Client::SignOff); with its outcome, counted or not, the
  // instance leaves.
  void SignOff(const std::string& name);

  // Nothing more is reported: the server forgets the instance after 120 s.
  void Leave(const std::string& name);

  [[nodiscard]] Counters GetCounters() const;  // of all instances together

 private:
  std::shared_ptr<ReporterLoop> loop_;
};

}  // namespace ugs
