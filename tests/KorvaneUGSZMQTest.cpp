#include "KorvaneUGSZMQ.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <thread>

#include "TestSupport.h"

namespace {

class KorvaneUGSZMQTest : public testing::Test {
 protected:
  void Start() {
    transport->SetPort(port);
    transport->Start();
    transport->SetRequestCallback([this](const std::string& identity, const std::string& payload) {
      const std::scoped_lock lock(mutex);
      requests.emplace_back(identity, payload);
    });
  }

  // The n-th request received so far, waited for.
  std::pair<std::string, std::string> Request(std::size_t n) {
    EXPECT_TRUE(Await([&] {
      const std::scoped_lock lock(mutex);
      return requests.size() > n;
    }));
    const std::scoped_lock lock(mutex);
    return requests.at(n);
  }

  // Since a callback installed after Start may miss a request, tests begin with one that has arrived.
  std::string MeetPeer(Peer& peer) {
    for (std::size_t tries = 0; tries < 200; ++tries) {
      peer.Send("meet");
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
      const std::scoped_lock lock(mutex);
      if (!requests.empty()) return std::exchange(requests, {}).back().first;
    }
    ADD_FAILURE() << "the peer was never heard";
    return {};
  }

  CapturedLog log;
  std::uint16_t port = FreePort();
  std::mutex mutex;  // guards requests
  std::vector<std::pair<std::string, std::string>> requests;
  std::unique_ptr<KorvaneUGSZMQ> transport = std::make_unique<KorvaneUGSZMQ>();
};

TEST_F(KorvaneUGSZMQTest, AnyBytesGoInAndTheReplyComesBackToItsPeer) {
  Start();
  Peer one(port);
  Peer two(port);
  const std::string identityOne = MeetPeer(one);
  const std::string identityTwo = MeetPeer(two);
  EXPECT_NE(identityOne, identityTwo);
  const std::string bytes("\0\xff{}%s\n", 7);
  one.Send(bytes);
  EXPECT_EQ(Request(0), std::pair(identityOne, bytes));
  transport->Reply(identityTwo, "for two");
  transport->Reply(identityOne, std::string("\0one", 4));
  transport->Reply("nobody", "lost");
  EXPECT_EQ(one.Receive(), std::string("\0one", 4));
  EXPECT_EQ(two.Receive(), "for two");
  EXPECT_EQ(log.Count("Creating response socket and connecting back"), 1U);
}

TEST_F(KorvaneUGSZMQTest, BytesOfNoProtocolAreNotTakenForFramesOfAnOldOne) {
  Start();
  Peer peer(port);
  MeetPeer(peer);
  // ZMTP 1.0: an empty name, and a message of two frames, which makes three with the name in front.
  RawPeer(port).Write(std::string_view("\1\0\4\1one\4\0two", 12));
  peer.Send("next");
  EXPECT_EQ(Request(0).second, "next");
}

TEST_F(KorvaneUGSZMQTest, RepliesBeforeStartAndAfterAFailedStartAreDropped) {
  transport->Reply("identity", "reply");
  EXPECT_TRUE(log.Lines().empty());

  KorvaneUGSZMQ holder;
  holder.SetPort(port);
  holder.Start();
  Peer probe(port);
  ASSERT_TRUE(Await([&] {  // the holder has bound once it can reply
    holder.Reply("identity", "reply");
    return log.Count("Creating response socket and connecting back") == 1;
  }));
  log.Clear();
  Start();
  const std::string text = "0x0081: tcp://0.0.0.0:" + std::to_string(port) + ": Address already in use";
  EXPECT_TRUE(Await([&] { return log.Count(text) == 1; }));
  EXPECT_EQ(log.Lines()[0], ErrorLine("KorvaneUGSZMQ::CreateSocket", text));
  std::this_thread::sleep_for(std::chrono::milliseconds(50));  // past the context's short publication
  transport->Reply("identity", "reply");
  EXPECT_EQ(log.Lines().size(), 1U);
}

TEST_F(KorvaneUGSZMQTest, AnEmptyPayloadIsLoggedAndNotAnswered) {
  Start();
  Peer peer(port);
  MeetPeer(peer);
  log.Clear();
  peer.Send("");
  peer.Send("next");
  EXPECT_EQ(Request(0).second, "next");
  EXPECT_EQ(log.Lines(),
            std::vector{ErrorLine("KorvaneUGSZMQ::ProcessWork", "0x0084 Invalid incoming data")});
}

TEST_F(KorvaneUGSZMQTest, FramesAreTakenTwoAtATimeAcrossMessages) {
  Start();
  Peer peer(port);
  const std::string identity = MeetPeer(peer);
  peer.SendFrames({"a", "b"});       // with the identity in front: three frames
  peer.SendFrames({"c", "d", "e"});  // four more
  peer.SendFrames({"f", "g"});       // three more
  EXPECT_EQ(Request(0), std::pair(identity, std::string("a")));
  EXPECT_EQ(Request(1), std::pair(std::string("b"), identity));
  EXPECT_EQ(Request(2), std::pair(std::string("c"), std::string("d")));
  EXPECT_EQ(Request(3), std::pair(std::string("e"), identity));
  EXPECT_EQ(Request(4), std::pair(std::string("f"), std::string("g")));
}

TEST_F(KorvaneUGSZMQTest, AfterAnOddMessageRepliesAndTheStopAreNotHeldBack) {
  Start();
  Peer peer(port);
  const std::string identity = MeetPeer(peer);
  log.Clear();
  Peer req(port, zmq::socket_type::req);
  req.Send("from a REQ socket");  // identity, empty delimiter, payload: the payload waits for a partner
  ASSERT_TRUE(Await([this] { return log.Count("0x0084 Invalid incoming data") == 1; }));
  transport->Reply(identity, "not held back");
  EXPECT_EQ(peer.Receive(), "not held back");
  transport.reset();  // never returns if the worker waits for the missing frame
}

TEST_F(KorvaneUGSZMQTest, AnExceptionOfTheCallbackIsLoggedAndTheServiceGoesOn) {
  Start();
  Peer peer(port);
  MeetPeer(peer);
  log.Clear();
  transport->SetRequestCallback([this](const std::string& identity, const std::string& payload) {
    if (payload == "throw") throw std::runtime_error("callback {} failed");
    const std::scoped_lock lock(mutex);
    requests.emplace_back(identity, payload);
  });
  peer.Send("throw");
  peer.Send("next");
  EXPECT_EQ(Request(0).second, "next");
  EXPECT_EQ(log.Lines(), std::vector{ErrorLine("KorvaneUGSZMQ::ProcessWork", "0x0083 callback {} failed")});
}

TEST_F(KorvaneUGSZMQTest, ARestartBindsTheSamePortAndNeedsANewReplySocket) {
  Start();
  Peer peer(port);
  transport->Reply(MeetPeer(peer), "before");
  EXPECT_EQ(peer.Receive(), "before");
  Start();
  EXPECT_EQ(log.Count("Cleaning up Reply socket in main thread!"), 1U);
  transport->Reply(MeetPeer(peer), "after");
  EXPECT_EQ(peer.Receive(), "after");
  EXPECT_EQ(log.Count("Creating response socket and connecting back"), 2U);
}

TEST_F(KorvaneUGSZMQTest, TheFirstPeersNameDiffersFromStartToStart) {
  std::vector<std::string> names;
  for (int i = 0; i < 2; ++i) {
    std::srand(1);  // as every process begins
    Start();
    Peer peer(port);
    names.push_back(MeetPeer(peer));
  }
  EXPECT_EQ(names[0].size(), 5U);
  EXPECT_NE(names[0], names[1]);
}

TEST_F(KorvaneUGSZMQTest, RepliesFromManyThreadsDuringRestartsNeitherHangNorFail) {
  Start();
  std::atomic<bool> stop = false;
  std::vector<std::thread> repliers;
  for (int i = 0; i < 4; ++i) {
    repliers.emplace_back([&] {
      while (!stop) transport->Reply("nobody", "reply");
    });
  }
  for (int i = 0; i < 3; ++i) Start();
  stop = true;
  for (std::thread& replier : repliers) replier.join();
  for (const LogLine& line : log.Lines()) EXPECT_NE(line.level, spdlog::level::err) << line;
}

}  // namespace
