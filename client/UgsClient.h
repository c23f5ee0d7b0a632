// Reporting to a KorvaneUGS server. In five lines:
//
//   ugs::Client client("10.0.0.5", "public.pem");
//   ugs::Usage usage{.id = "hall-7", .container = "a1b2", .cameras = {"rtsp://10.0.0.9/1"}};
//   usage.counts["MaxCameras"] = 4;
//   const std::optional<int> code = client.Report(usage);
//   if (code != 0) std::puts(code ? "refused" : "no answer");
//
// Or let a ugs::Reporter do it over and over. Keys and plaintexts are wiped when a report is sealed.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#define UGS_API __attribute__((visibility("default")))

namespace ugs {

// What one instance is using. The server identifies the instance by `id` followed by `cameras`, in order:
// both must be non-empty for the report to be counted.
struct Usage {
  std::string id = {};
  std::string container = {};
  std::vector<std::string> cameras = {};             // RTSP URLs
  std::map<std::string, std::uint32_t> counts = {};  // by JSON key ("MaxCameras"); those left out are 0
  std::string layout = "v6";                         // "legacy", "v4", "v5" or "v6"
};

// The names of all layouts, oldest first. Thread-safe.
UGS_API std::vector<std::string> LayoutNames();

// The keys that `layout` carries, in the order of the document. Thread-safe. Throws std::invalid_argument for
// an unknown layout.
UGS_API std::vector<std::string> CountKeys(std::string_view layout);

// The JSON document that reports `usage`. Thread-safe. Throws std::invalid_argument for an unknown layout or
// a count that the layout does not carry.
UGS_API std::string WriteDocument(const Usage& usage);

struct Address {
  std::string host;
  std::uint16_t port = 0;
};

// Reads HOST or HOST:PORT (port 9304 by default). Thread-safe. Throws std::invalid_argument otherwise.
UGS_API Address ParseAddress(std::string_view server);

// One instance's connection to the server. Not thread-safe: one thread at a time, except for Interrupt. The
// connection is made in the background, and again whenever it is lost.
//
// A client never has more than one request in flight. One that was not answered in time is still in the
// server's queue, for as long as the connection lives; the next call waits for its answer before it sends
// anything, so a slow server is not made slower.
class UGS_API Client {
 public:
  // `key` is the server's public RSA key: PEM text ("BEGIN PUBLIC KEY") or the name of a file that holds it.
  // Does not block. Throws std::invalid_argument if `server` is not an address, the file cannot be read, or
  // the key is not one.
  Client(std::string_view server, const std::string& key,
         std::chrono::milliseconds replyTimeout = std::chrono::seconds(30));
  ~Client();  // drops a request in flight
  Client(Client&&) noexcept;
  Client& operator=(Client&&) noexcept;

  // Each of these seals one request, sends it and waits for the answer, together for at most the reply
  // time-out. Returns the server's reply code, or nothing without an answer: no connection, none in time, or
  // the connection was lost. Throws std::runtime_error if the request cannot be sealed.
  std::optional<int> Report(const Usage& usage);  // 0 counted, 2 refused; throws as WriteDocument
  std::optional<int> SendDocument(std::string_view document);  // the same for any document, sent as it is
  std::optional<int> Greet();                                  // 1: the server is there and has our key

  // Any thread. Makes the call that is waiting, or else the next one, return nothing at once.
  void Interrupt();

 private:
  friend class Reporter;
  class Connection;
  std::unique_ptr<Connection> connection_;
};

// Reports on a thread of its own, once a period, until it is destroyed. The first report comes at a random
// moment of the first period, so that a fleet started together does not report together. Without an answer
// it tries again after 1 s, then 2 s, 4 s and so on up to the period, each time between half and one and a
// half of that.
class UGS_API Reporter {
 public:
  // Both are called on the reporter's thread. What `usage` returns is sent; if it throws, or returns what no
  // document can carry, the listener hears of no answer. The listener must not throw.
  using Source = std::function<Usage()>;
  using Listener = std::function<void(std::optional<int> code)>;

  // The server forgets an instance after 120 s, so a period of up to 50 s survives one lost report. Throws
  // as Client does; std::invalid_argument also if `period` is not positive.
  Reporter(std::string_view server, const std::string& key, Source usage,
           std::chrono::milliseconds period = std::chrono::seconds(30), Listener answered = {},
           std::chrono::milliseconds replyTimeout = std::chrono::seconds(30));
  ~Reporter();  // interrupts a report in flight; does not wait for the network
  Reporter(const Reporter&) = delete;
  Reporter& operator=(const Reporter&) = delete;

 private:
  void Run();
  std::optional<int> ReportOnce();

  const Source usage_;
  const Listener answered_;
  const std::chrono::milliseconds period_;
  Client client_;                   // the thread's, but for Interrupt
  std::atomic<bool> stop_ = false;  // set once, before the interrupt
  std::thread thread_;
};

}  // namespace ugs
