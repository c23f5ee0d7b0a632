// What the unit tests share: a log that can be read back, a clock that stands still, report documents,
// sealed envelopes and peers.
#pragma once

#include <openssl/types.h>
#include <spdlog/sinks/base_sink.h>
#include <spdlog/spdlog.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <ostream>
#include <string>
#include <string_view>
#include <vector>
#include <zmq.hpp>

#include "Base64.h"
#include "KorvaneUGSZMQ.h"
#include "PrivateKey.h"
#include "ScrambledKey.h"
#include "Sealer.h"
#include "UGSRequest.h"

using ugs::Base64Decode;
using ugs::Base64Encode;
using ugs::CountSlots;
using ugs::ScrambleKey;
using ugs::UnscrambleKey;
using ugs::UsageCounts;

struct LogLine {
  spdlog::level::level_enum level;
  std::string function;
  std::string text;

  friend bool operator==(const LogLine&, const LogLine&) = default;
  friend std::ostream& operator<<(std::ostream& out, const LogLine& line) {
    return out << spdlog::level::to_string_view(line.level).data() << " " << line.function << ": "
               << line.text;
  }
};

LogLine ErrorLine(std::string function, std::string text);
LogLine InfoLine(std::string function, std::string text);

// Stands in for the process logger while it lives. Thread-safe. Every line must name its source file and
// line.
class CapturedLog {
 public:
  CapturedLog();
  ~CapturedLog();
  CapturedLog(const CapturedLog&) = delete;
  CapturedLog& operator=(const CapturedLog&) = delete;

  [[nodiscard]] std::vector<LogLine> Lines() const;
  [[nodiscard]] std::vector<std::string> Texts() const;
  [[nodiscard]] std::size_t Count(const std::string& text) const;
  void Clear();

 private:
  class Sink;
  std::shared_ptr<spdlog::logger> before_;
  std::shared_ptr<Sink> sink_;
};

// Stands in for the process-wide clock while it lives.
class StandingClock {
 public:
  explicit StandingClock(std::int32_t start);
  ~StandingClock();
  StandingClock(const StandingClock&) = delete;
  StandingClock& operator=(const StandingClock&) = delete;

  std::int32_t now;

 private:
  std::function<std::int32_t()> before_;
};

// True as soon as `condition` is; false if it is not within 20 s.
bool Await(const std::function<bool()>& condition);

// A document of `layout` as text, all counts 0. `raw` replaces a member's JSON text.
struct DocumentText {
  std::string layout = "v6";
  std::map<std::string, std::string> raw = {};

  [[nodiscard]] std::string Write() const;
};

std::string PublicKeyPem();                    // of the pair that this build carries
std::string Seal(std::string_view plaintext);  // for that pair
std::string WrapKey(std::string_view key);     // for that pair; what goes into it, 245 bytes at most
// RSA with PKCS #1 v1.5 padding, as base64. `text` must fit into the key's size less 11 bytes.
std::string Wrap(EVP_PKEY* key, std::string_view text);

// A TCP port that was free a moment ago.
std::uint16_t FreePort();

// An instance's end of the wire.
class Peer {
 public:
  explicit Peer(std::uint16_t port, zmq::socket_type type = zmq::socket_type::dealer);

  void SendFrames(const std::vector<std::string>& frames);
  void Send(const std::string& payload) { SendFrames({payload}); }
  // The next frame, or nothing within `milliseconds`.
  std::optional<std::string> Receive(int milliseconds = 20000);

 private:
  zmq::context_t context_;
  zmq::socket_t socket_;
};

// A TCP connection to a port of this machine, for bytes that no library would send. Writing ignores errors:
// the other end may have had enough.
class RawPeer {
 public:
  // Waits at its end for `farewell`, so that the other end reads all before it hears of the hanging up.
  explicit RawPeer(std::uint16_t port, std::chrono::milliseconds farewell = std::chrono::milliseconds(20));
  ~RawPeer();
  RawPeer(const RawPeer&) = delete;
  RawPeer& operator=(const RawPeer&) = delete;

  // Shakes hands as a DEALER without security (ZMTP 3.0, ZeroMQ RFC 23). Frames may be written afterwards:
  // the other end hangs up on a peer that sends them before it has got the other READY.
  void ShakeHands() const;

  void Write(std::string_view bytes) const;

 private:
  void SetReceiveTimeout(std::chrono::milliseconds timeout) const;

  int descriptor_;
  std::chrono::milliseconds farewell_;
};
