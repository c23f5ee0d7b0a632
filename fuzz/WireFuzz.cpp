// Bytes on the wire, before or after a handshake, that a transport in this process receives: it lives
// on and passes requests and replies. It replies at once; the intake's pace would let a queue grow for
// minutes. Input: "!" for a handshake first, then what is sent.

#include <spdlog/spdlog.h>

#include "Fuzz.h"
#include "KorvaneUGSZMQ.h"
#include "TestSupport.h"

namespace {

// Of a DEALER without security (ZMTP 3.0, ZeroMQ RFC 23): a greeting of 64 bytes, then READY.
const std::string kHandshake = std::string("\xff\0\0\0\0\0\0\0\0\x7f\3\0NULL", 16) + std::string(48, '\0') +
                               std::string("\x04\x1c\x05READY\x0bSocket-Type\0\0\0\x06", 24) + "DEALER";

// The messages of a ZMQ_STREAM socket are a connection and bytes.
void Send(std::uint16_t port, std::string_view text) {
  Peer raw(port, ZMQ_STREAM);
  const std::string connection = raw.Receive().value_or("");
  raw.Receive();  // no bytes yet
  if (text.starts_with('!')) {
    text.remove_prefix(1);
    raw.SendFrames({connection, kHandshake});
    // Frames may be sent once the other READY is there: the other end hangs up on them before.
    for (std::size_t received = 0; received <= 64 && raw.Receive();) received += raw.Receive()->size();
  }
  raw.SendFrames({connection, std::string(text)});
  while (raw.Receive(20)) continue;  // so that the other end reads all before it hears of the hanging up
}

}  // namespace

void TestOneInput(std::string_view input) {
  static spdlog::logger* const logger = spdlog::default_logger_raw();  // made first, to outlive the transport
  static const std::uint16_t port = FreePort();
  static KorvaneUGSZMQ transport;
  static Peer peer(port);
  static int inputs = 0;
  if (inputs == 0) {
    logger->set_level(spdlog::level::off);
    transport.SetPort(port);
    transport.SetRequestCallback(
        [](const auto& name, const auto& payload) { transport.Reply(name, payload); });
    transport.Start();
  }
  Send(port, input);
  // After each input of a replay; a fuzzer would lose nine tenths of its pace by that.
  if (++inputs >= 100 && inputs % 50 != 0) return;
  Require(Await([] {
    peer.Send("hello");
    if (peer.Receive(200) == "hello") return true;
    // A message of three frames takes along the frame that an odd one before it has left over.
    peer.SendFrames({"", "odd"});
    return false;
  }));
}
