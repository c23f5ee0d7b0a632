// Reporting to a KorvaneUGS server: fill a Report, hand it to a Client, look at the reply code.
#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace ugs {

// What one instance is using. The server identifies the instance by `id` followed by `cameras`, in order:
// both must be non-empty for the report to be counted.
struct Report {
  std::string id = {};
  std::string container = {};
  std::vector<std::string> cameras = {};  // RTSP URLs
  std::map<std::string, std::uint32_t> counts =
      {};                     // by JSON key ("MaxCameras"); those left out are sent as 0
  std::string layout = "v6";  // "legacy", "v4", "v5" or "v6"
};

// The keys that `layout` carries, in the order of the document. Throws std::invalid_argument for an unknown
// layout. Thread-safe.
std::vector<std::string> CountKeys(std::string_view layout);

// The names of all layouts, oldest first. Thread-safe.
std::vector<std::string> LayoutNames();

// The JSON document of `report`. Throws std::invalid_argument for an unknown layout or a count that the
// layout does not carry. Thread-safe.
std::string WriteDocument(const Report& report);

struct Address {
  std::string host;
  std::uint16_t port = 0;
};

// Reads HOST or HOST:PORT (port 9304 by default). Throws std::invalid_argument for anything else.
Address ParseAddress(std::string_view server);

// One instance's connection to the server. Not thread-safe: one thread at a time. The connection is made in
// the background, and again whenever it is lost.
class Client {
 public:
  // Throws std::invalid_argument if `server` is not an address or `publicKeyPem` not the PEM text of an RSA
  // public key ("BEGIN PUBLIC KEY").
  Client(std::string_view server, const std::string& publicKeyPem,
         std::chrono::milliseconds replyTimeout = std::chrono::seconds(30));
  ~Client();
  Client(Client&&) noexcept;
  Client& operator=(Client&&) noexcept;

  // Each seals one request, sends it and waits for the answer, at most for the reply time-out. Returns the
  // server's reply code, or nothing without an answer. Throws as WriteDocument does, and std::runtime_error
  // if the request cannot be sealed.
  std::optional<int> Send(const Report& report);               // 0 counted, 2 refused
  std::optional<int> SendDocument(std::string_view document);  // the same for any document, sent as it is
  std::optional<int> Greet();                                  // 1: the server is there and has our key

 private:
  class Connection;
  std::unique_ptr<Connection> connection_;
};

}  // namespace ugs
