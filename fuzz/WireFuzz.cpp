// Bytes on the wire, in front of or behind a handshake, that a transport in this process receives: it lives
// on and passes requests and replies. It replies at once; the intake's pace would let a queue grow for
// minutes. Input: "!" for a handshake first, then what is sent.

#include <string>

#include "Fuzz.h"
#include "KorvaneUGSZMQ.h"
#include "Logging.h"
#include "TestSupport.h"

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
    transport.Start();
    transport.SetRequestCallback(
        [](const auto& name, const auto& payload) { transport.Reply(name, payload); });
    return Await(answers);
  }();
  const std::string_view text = AsText(data, size);
  {
    RawPeer raw(port);
    if (text.starts_with('!')) raw.ShakeHands();
    raw.Write(text.starts_with('!') ? text.substr(1) : text);
  }
  // After each input of a replay; a fuzzer would lose nine tenths of its pace by that.
  if (++inputs < 100 || inputs % 50 == 0) Require(listens && Await(answers));
  return 0;
}
