#include <gtest/gtest.h>
#include <rapidjson/document.h>

#include <algorithm>
#include <atomic>
#include <mutex>
#include <set>
#include <stdexcept>

#include "Base64.h"
#include "JsonReader.h"
#include "KorvaneUGSZMQ.h"
#include "Redirected.h"
#include "Sealer.h"
#include "TestSupport.h"
#include "UgsClient.h"

namespace {

using namespace std::chrono_literals;
using Request = std::pair<std::string, std::string>;  // identity, payload
using Strings = std::vector<std::string>;

// A transport that keeps the requests, and answers them if the test says what.
class TransportTest : public testing::Test {
 protected:
  TransportTest() { Start(); }

  void Start() {
    transport->SetRequestCallback([this](const std::string& identity, const std::string& payload) {
      if (payload == "throw") throw std::runtime_error("callback {} failed");
      if (payload == "hold") transport->HoldRequests(true);
      const std::scoped_lock lock(mutex);
      requests.emplace_back(identity, payload);
      if (!answer.empty()) transport->Reply(identity, answer);
    });
    transport->SetPort(port);
    transport->Start();
  }
  // What each request is answered from now on; nothing if empty. Returns how many there were before.
  std::size_t AnswerWith(const std::string& text) {
    const std::scoped_lock lock(mutex);
    answer = text;
    return requests.size();
  }
  // The n-th request received so far, waited for.
  Request Received(std::size_t n) {
    EXPECT_TRUE(Await([&] {
      const std::scoped_lock lock(mutex);
      return requests.size() > n;
    }));
    const std::scoped_lock lock(mutex);
    return requests.at(n);
  }

  CapturedLog log;
  const std::uint16_t port = FreePort();
  std::mutex mutex;  // guards the next two
  std::vector<Request> requests;
  std::string answer;
  std::unique_ptr<KorvaneUGSZMQ> transport = std::make_unique<KorvaneUGSZMQ>();
};

class KorvaneUGSZMQTest : public TransportTest {
 protected:
  // Makes `newcomer` known to the transport, with a first request.
  std::string IdentityOf(Peer& newcomer) {
    newcomer.Send("first");
    return Received(known++).first;
  }

  std::size_t known = 0;
  Peer peer{port};
};

TEST_F(KorvaneUGSZMQTest, AnyBytesGoInAndTheReplyComesBackToItsPeer) {
  KorvaneUGSZMQ().Reply("identity", "dropped: not started");
  EXPECT_TRUE(log.Lines().empty());
  Peer other(port);
  const std::string identity = IdentityOf(peer);
  const std::string identityOfOther = IdentityOf(other);
  const std::string bytes("\0\xff{}%s\n", 7);
  peer.Send(bytes);
  EXPECT_EQ(Received(2), Request(identity, bytes));
  transport->Reply(identityOfOther, "for the other");
  transport->Reply(identity, bytes);
  transport->Reply("nobody", "lost");
  EXPECT_EQ(peer.Receive(), bytes);
  EXPECT_EQ(other.Receive(), "for the other");
}

TEST_F(KorvaneUGSZMQTest, WhileRequestsAreHeldTheyWaitAndRepliesGoOut) {
  peer.Send("hold");
  peer.Send("waits");
  transport->Reply(Received(0).first, "reply");
  EXPECT_EQ(peer.Receive(), "reply");
  EXPECT_EQ(AnswerWith(""), 1U);
  transport->HoldRequests(false);
  EXPECT_EQ(Received(1).second, "waits");
  peer.Send("hold");
  Received(2);
  transport.reset();  // held or not, it ends
}

TEST_F(KorvaneUGSZMQTest, StrictlyAMessageOfOtherThanTwoFramesIsRefusedWhole) {
  transport = std::make_unique<KorvaneUGSZMQ>(RequestFrames::Strict);
  Start();
  const std::string victim = IdentityOf(peer);
  Peer bad(port);
  Peer req(port, ZMQ_REQ);
  bad.SendFrames({"odd", "one"});
  bad.SendFrames({victim, "forged"});
  bad.SendFrames({"an", "even", "one"});
  bad.SendFrames(Strings(10'000, ""));
  bad.Send("");
  req.Send("behind a delimiter");
  ASSERT_TRUE(Await([this] { return log.Count("0x0084 Invalid incoming data") == 6; }));
  bad.Send("good");
  peer.Send("next");
  EXPECT_EQ((std::set{Received(1).second, Received(2).second}), (std::set<std::string>{"good", "next"}));
  EXPECT_EQ(log.Lines().size(), 6U);
}

TEST_F(KorvaneUGSZMQTest, AnEmptyPayloadOrAnExceptionOfTheCallbackIsLoggedAndTheServiceGoesOn) {
  peer.Send("");
  peer.Send("throw");
  peer.Send("next");
  EXPECT_EQ(Received(0).second, "next");
  EXPECT_EQ(log.Lines(), (Strings{"error KorvaneUGSZMQ::ProcessWork: 0x0084 Invalid incoming data",
                                  "error KorvaneUGSZMQ::ProcessWork: 0x0083 callback {} failed"}));
}

TEST_F(KorvaneUGSZMQTest, FramesAreTakenTwoAtATimeAcrossMessages) {
  const std::string name = IdentityOf(peer);
  peer.SendFrames({"a", "b"});       // with the identity in front: three frames
  peer.SendFrames({"c", "d", "e"});  // four more
  peer.SendFrames({"f", "g"});       // three more
  const std::vector<Request> pairs{{name, "a"}, {"b", name}, {"c", "d"}, {"e", name}, {"f", "g"}};
  for (std::size_t i = 0; i < pairs.size(); ++i) EXPECT_EQ(Received(i + 1), pairs[i]);
}

TEST_F(KorvaneUGSZMQTest, AfterAnOddMessageRepliesAndTheStopAreNotHeldBack) {
  const std::string identity = IdentityOf(peer);
  Peer req(port, ZMQ_REQ);
  req.Send("from a REQ socket");  // identity, empty delimiter, payload: the payload waits for a partner
  ASSERT_TRUE(Await([this] { return log.Count("0x0084 Invalid incoming data") == 1; }));
  transport->Reply(identity, "not held back");
  EXPECT_EQ(peer.Receive(), "not held back");
  transport.reset();  // never returns if the worker waits for the missing frame
}

TEST_F(KorvaneUGSZMQTest, APeerThatNeverReadsHoldsUpNobody) {
  Peer deaf(port);
  const std::string identityOfDeaf = IdentityOf(deaf);
  const std::string identity = IdentityOf(peer);
  for (int i = 0; i < 50; ++i) {  // more in all than its connection and queues take
    for (int j = 0; j < 100; ++j) transport->Reply(identityOfDeaf, std::string(10'000, 'x'));
    transport->Reply(identity, std::to_string(i));
    EXPECT_EQ(peer.Receive(), std::to_string(i));
  }
}

// A reply is two frames on the channel to the worker. If the second were taken for an identity, the peer
// would get the other's name.
TEST_F(KorvaneUGSZMQTest, RepliesThatOverflowTheirChannelAreLostWhole) {
  const std::string identity = IdentityOf(peer);
  for (int i = 0; i < 100'000; ++i) transport->Reply("nobody", identity);
  std::optional<std::string> reply;
  EXPECT_TRUE(Await([&] {
    transport->Reply(identity, "for the peer");
    return (reply = peer.Receive(20)).has_value();
  }));
  EXPECT_EQ(reply, "for the peer");
}

TEST_F(KorvaneUGSZMQTest, ARestartBindsTheSamePortAndNeedsANewReplySocketAndNewNames) {
  IdentityOf(peer);
  for (int i = 0; i < 2; ++i) {
    Start();
    Peer newcomer(port);
    transport->Reply(IdentityOf(newcomer), "reply");
    EXPECT_EQ(newcomer.Receive(), "reply");
  }
  const std::vector<unsigned> seeds = TakeSeeds();  // of the names that libzmq gives to peers
  EXPECT_GE(seeds.size(), 3U);
  EXPECT_EQ(std::set(seeds.begin(), seeds.end()).size(), seeds.size());
  EXPECT_EQ(log.Count("Cleaning up Reply socket in main thread!"), 1U);
  EXPECT_EQ(log.Count("Creating response socket and connecting back"), 2U);
}

class ClientTest : public TransportTest {
 protected:
  const std::string address = "127.0.0.1:" + std::to_string(port);
  ugs::Client client{address, PublicKeyPem()};
  ugs::Client hasty{address, PublicKeyPem(), 400ms};
};

TEST_F(ClientTest, ReturnsTheCodeWhateverItIs) {
  for (const int code : {0, 1, 2, -7}) {
    AnswerWith(std::to_string(code));
    EXPECT_EQ(client.Greet(), code);
  }
  AnswerWith("1x");
  EXPECT_THROW(client.Greet(), std::runtime_error);
}

TEST_F(ClientTest, ASlowServerNeverHasASecondRequestOfTheSameClient) {
  EXPECT_TRUE(Await([this] { return hasty.Greet(), AnswerWith("") == 1; }));
  EXPECT_EQ(hasty.Greet(), std::nullopt);
  transport->Reply(Received(0).first, "2");  // late: it must not be taken for the next request's
  AnswerWith("1");
  std::optional<int> code;
  EXPECT_TRUE(Await([&] { return (code = hasty.Greet()).has_value(); }));
  EXPECT_EQ(code, 1);
  EXPECT_EQ(AnswerWith(""), 2U);
}

TEST_F(ClientTest, TheLateAnswerToAnInterruptedCallIsNotTheNextOnes) {
  std::optional<int> code = 0;
  {
    const std::jthread caller([&] { code = client.Greet(); });
    Received(0);
    client.Interrupt();
  }
  EXPECT_EQ(code, std::nullopt);
  transport->Reply(Received(0).first, "2");
  AnswerWith("1");
  EXPECT_EQ(client.Greet(), 1);
}

TEST_F(ClientTest, AfterALostConnectionItAsksAnewAndNothingWasQueued) {
  EXPECT_TRUE(Await([this] { return hasty.Greet(), AnswerWith("1") == 1; }));
  transport.reset();
  for (int i = 0; i < 2; ++i) EXPECT_EQ(hasty.Greet(), std::nullopt);
  transport = std::make_unique<KorvaneUGSZMQ>();
  Start();
  EXPECT_TRUE(Await([this] { return hasty.Greet() == 1; }));
  EXPECT_EQ(AnswerWith(""), 2U);
}

TEST_F(ClientTest, AReporterReportsOncePerPeriodUntilItIsDestroyed) {
  AnswerWith("0");
  std::atomic<int> counted = 0;
  const auto usage = [] {
    return ugs::Usage{.id = "i", .cameras = {"c"}};
  };
  const auto count = [&](std::optional<int> code) {
    counted += code == 0 ? 1 : 0;
  };
  const ugs::Reporter reporter(address, PublicKeyPem(), usage, 20ms, count, 1h);
  EXPECT_TRUE(Await([&] { return counted >= 5; }));
  Received(AnswerWith(""));  // destroyed while this one is waiting for its answer
}

TEST_F(ClientTest, AReporterWaitsLongerAfterEachFailureUpToItsPeriod) {
  std::atomic<int> unanswered = 0;
  const auto usage = []() -> ugs::Usage {
    throw std::runtime_error("no figures");
  };
  const auto count = [&](std::optional<int> code) {
    unanswered += code ? 0 : 1;
  };
  TakeWaits();
  waitsAreInstant = true;
  {
    const ugs::Reporter reporter(address, PublicKeyPem(), usage, 4s, count);
    EXPECT_TRUE(Await([&] { return unanswered > 100; }));
  }
  waitsAreInstant = false;
  const std::vector<long> waits = TakeWaits();
  EXPECT_LE(waits[1], 1500);  // from half of 1, 2 and 4 s to one and a half
  EXPECT_LE(waits[2], 3000);
  EXPECT_LE(std::ranges::max(waits), 6000);
  EXPECT_GT(std::ranges::max(waits), 3000);
}

TEST(WriteDocumentTest, EscapesStringsAndSaysZeroForWhatIsLeftOut) {
  EXPECT_EQ(
      ugs::WriteDocument(
          {.id = "i\"\n\x01", .cameras = {"a\\", "b"}, .counts = {{"AN", 7}}, .layout = "legacy"}),
      R"({"KorvaneID":"i\"\n\u0001","DockerID":"","CamRtspUrls":["a\\","b"],"InUse":{"MaxCameras":0,"ABD":0,)"
      R"("AN":7,"CR":0,"ClassTier1":0,"ClassTier2":0,"ClassTier3":0,"Perimeter":0,"Dwell":0,"Collision":0,)"
      R"("NeuralPack":0}})");
}

TEST(WriteDocumentTest, WhatALayoutDoesNotCarryIsRefused) {
  EXPECT_THROW(ugs::WriteDocument({.counts = {{"PX", 1}}, .layout = "legacy"}), std::invalid_argument);
  EXPECT_THROW(ugs::WriteDocument({.counts = {{"maxcameras", 1}}}), std::invalid_argument);
  EXPECT_THROW(ugs::WriteDocument({.layout = "v7"}), std::invalid_argument);
}

TEST(ParseAddressTest, TakesAHostWithOrWithoutAPort) {
  EXPECT_EQ(ugs::ParseAddress("host").port, 9304);
  EXPECT_EQ(ugs::ParseAddress("10.0.0.1:77").port, 77);
  EXPECT_EQ(ugs::ParseAddress("10.0.0.1:77").host, "10.0.0.1");
  for (const char* text : {"", ":1", "a:", "a:0", "a:65536", "a:1x", "a:-1", "::1", "a:1:2"}) {
    EXPECT_THROW(ugs::ParseAddress(text), std::invalid_argument) << text;
  }
}

TEST(SealerTest, KeyAndIvAreNewForEachEnvelopeAndForeignKeysAreRefused) {
  rapidjson::Document one;
  rapidjson::Document two;
  ASSERT_TRUE(ParseJson(ugs::Base64Decode(Seal("{hello}")), one));
  ASSERT_TRUE(ParseJson(ugs::Base64Decode(Seal("{hello}")), two));
  for (const char* key : {"data1", "data2", "data3"})
    EXPECT_STRNE(one[key].GetString(), two[key].GetString());
  EXPECT_THROW(ugs::Sealer(""), std::invalid_argument);
  EXPECT_THROW(ugs::Sealer("-----BEGIN PUBLIC KEY-----\nAAAA\n-----END PUBLIC KEY-----\n"),
               std::invalid_argument);
}

}  // namespace
