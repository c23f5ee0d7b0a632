// What the unit tests, the fuzz targets and the transport's storm share.
#pragma once

#include <openssl/types.h>
#include <zmq.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace spdlog {
class logger;
}

// Stands in for the process logger while it lives. Thread-safe.
class CapturedLog {
 public:
  explicit CapturedLog(std::size_t lines = 10'000);  // of which the newest are kept
  ~CapturedLog();
  CapturedLog(const CapturedLog&) = delete;
  CapturedLog& operator=(const CapturedLog&) = delete;

  // What was logged since the last Clear, each line as "error Class::Function: text".
  [[nodiscard]] std::vector<std::string> Lines() const;
  // How many of these lines end with `text`.
  [[nodiscard]] std::size_t Count(std::string_view text) const;
  void Clear() { cleared_ += Lines().size(); }

 private:
  std::shared_ptr<spdlog::logger> before_;
  std::function<std::vector<std::string>()> allLines_;
  std::size_t cleared_ = 0;
};

// Stands in for the process-wide clock while it lives.
class FakeClock {
 public:
  explicit FakeClock(std::int32_t start);
  ~FakeClock();
  FakeClock(const FakeClock&) = delete;
  FakeClock& operator=(const FakeClock&) = delete;

  std::int32_t now;

 private:
  std::function<std::int32_t()> before_;
};

// True as soon as `condition` is; false if it is not within 20 s.
bool Await(const std::function<bool()>& condition);

std::string PublicKeyPem();                    // of the pair that this build carries
std::string Seal(std::string_view plaintext);  // for that pair
// RSA with PKCS #1 v1.5 padding, as base64; for that pair if there is no `key`. `text` must fit into the
// key's size less 11 bytes.
std::string Wrap(std::string_view text, EVP_PKEY* key = nullptr);

// A TCP port that was free a moment ago.
std::uint16_t FreePort();

// The other end of the wire: an instance, or with ZMQ_STREAM a TCP connection that sends any bytes.
class Peer {
 public:
  explicit Peer(std::uint16_t port, int type = ZMQ_DEALER);

  void SendFrames(const std::vector<std::string>& frames);
  void Send(const std::string& payload) { SendFrames({payload}); }
  // The next frame, or nothing within `milliseconds`.
  std::optional<std::string> Receive(int milliseconds = 20000);

 private:
  std::unique_ptr<void, decltype(&zmq_ctx_term)> context_;
  std::unique_ptr<void, decltype(&zmq_close)> socket_;
};
