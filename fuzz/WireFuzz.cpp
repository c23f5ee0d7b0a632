// Bytes on the wire, in front of or behind a handshake, that a transport in this process receives: it lives
// on and passes requests and replies. It replies at once; the intake's pace would let a queue grow for
// minutes. Input: "!" for a handshake first, then what is sent.

#include <spdlog/spdlog.h>

#include <string>

#include "Fuzz.h"
#include "KorvaneUGSZMQ.h"
#include "TestSupport.h"

namespace {

// Shakes hands as a DEALER without security (ZMTP 3.0, ZeroMQ RFC 23). Frames may be sent afterwards: the
// other end hangs up on a peer that sends them before it has got the other READY, which follows a greeting of
// 64 bytes.
void ShakeHands(Peer& raw, const std::string& connection) {
  const std::string greeting = std::string("\xff\0\0\0\0\0\0\0\0\x7f\3\0NULL", 16) + std::string(48, '\0');
  const std::string ready = std::string("\x05READY\x0bSocket-Type\0\0\0\x06", 22) + "DEALER";
  raw.SendFrames({connection, greeting + '\x04' + static_cast<char>(ready.size()) + ready});
  std::size_t received = 0;
  while (received <= 64 && raw.Receive()) received += raw.Receive().value_or("").size();
}

void Send(std::uint16_t port, std::string_view text) {
  Peer raw(port, ZMQ_STREAM);
  const std::string connection = raw.Receive().value_or("");
  raw.Receive();  // nothing yet
  if (text.starts_with('!')) ShakeHands(raw, connection);
  raw.SendFrames({connection, std::string(text.starts_with('!') ? text.substr(1) : text)});
  while (raw.Receive(20)) continue;  // so that the other end reads all before it hears of the hanging up
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static spdlog::logger* const logger = spdlog::default_logger_raw();  // made first, to outlive the transport
  static const std::uint16_t port = FreePort();
  static KorvaneUGSZMQ transport;
  static Peer peer(port);
  static int inputs = 0;
  // A message of three frames takes along the frame that an odd one before it has left over.
  const auto answers = [] {
    peer.Send("hello");
    if (peer.Receive(200) == "hello") return true;
    peer.SendFrames({"", "odd"});
    return false;
  };
  static const bool listens = [&answers] {
    logger->set_level(spdlog::level::off);
    transport.SetPort(port);
    transport.SetRequestCallback(
        [](const auto& name, const auto& payload) { transport.Reply(name, payload); });
    transport.Start();
    return Await(answers);
  }();
  Send(port, AsText(data, size));
  // After each input of a replay; a fuzzer would lose nine tenths of its pace by that.
  if (++inputs < 100 || inputs % 50 == 0) Require(listens && Await(answers));
  return 0;
}
