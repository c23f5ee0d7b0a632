// Bytes on the wire, in front of or behind a handshake, that a transport in this process receives: it lives
// on and passes requests and replies. It replies at once; the intake's pace would let a queue grow for
// minutes. Input: "!" for a handshake first, then what is sent.

#include <string>

#include "Fuzz.h"
#include "KorvaneUGSZMQ.h"
#include "Logging.h"
#include "TestSupport.h"

namespace {
struct Subject {
  Subject() {
    spdlog::set_level(spdlog::level::off);
    transport.SetPort(port);
    transport.Start();
    transport.SetRequestCallback([this](const std::string& identity, const std::string& payload) {
      transport.Reply(identity, payload);
    });
    Require(Await([this] { return Answers(); }));  // from now on it listens
  }
  // A message of three frames takes along the frame that an odd one before it has left over.
  bool Answers() {
    peer.Send("hello");
    if (peer.Receive(200) == "hello") return true;
    peer.SendFrames({"", "odd"});
    return false;
  }

  const std::uint16_t port = FreePort();
  KorvaneUGSZMQ transport;
  Peer peer{port};
  int inputs = 0;
};
}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static Subject subject;
  const std::string_view text = AsText(data, size);
  {
    RawPeer raw(subject.port);
    if (text.starts_with('!')) raw.Write(RawPeer::Handshake());
    raw.Write(text.starts_with('!') ? text.substr(1) : text);
  }
  if (subject.inputs++ % 50 == 0) Require(Await([] { return subject.Answers(); }));
  return 0;
}
