#include "UgsClient.h"

#include <gtest/gtest.h>
#include <rapidjson/document.h>

#include <atomic>
#include <stdexcept>
#include <thread>

#include "JsonReader.h"
#include "KorvaneControllerServer.h"
#include "TestSupport.h"
#include "UGSRequest.h"

namespace {

TEST(WriteDocumentTest, TheServerReadsEveryLayoutBack) {
  for (const std::string& layout : ugs::LayoutNames()) {
    ugs::Usage usage{
        .id = "i\"d\n", .container = "docker", .cameras = {"rtsp://a?x=\\", "b"}, .layout = layout};
    std::uint32_t next = 4294967295;
    for (const std::string& key : ugs::CountKeys(layout)) usage.counts[key] = next--;
    rapidjson::Document document;
    ASSERT_TRUE(ParseJson(ugs::WriteDocument(usage), document));
    UGSRequest::RequestData data;
    ASSERT_EQ(UGSRequest::Parse(document, data), UGSDefs::Ok) << layout;
    EXPECT_EQ(data.korvaneId, usage.id);
    EXPECT_EQ(data.dockerId, usage.container);
    EXPECT_EQ(data.camRtspUrls, usage.cameras);
    EXPECT_EQ(data.counts.maxCameras, 4294967295);
    EXPECT_EQ(data.counts.numNeuralPack, 4294967295 - 10);
    EXPECT_EQ(data.counts.numFaceTier2, layout == "v6" ? next + 1 : 0);
  }
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

TEST(SealerTest, NoTwoEnvelopesAreAlikeAndForeignKeysAreRefused) {
  EXPECT_NE(Seal("{hello}"), Seal("{hello}"));
  EXPECT_THROW(ugs::Sealer(""), std::invalid_argument);
  EXPECT_THROW(ugs::Sealer("-----BEGIN PUBLIC KEY-----\nAAAA\n-----END PUBLIC KEY-----\n"),
               std::invalid_argument);
}

// A server whose every move the test makes.
class ClientTest : public testing::Test {
 protected:
  ClientTest() { Bind(); }

  void Bind() {
    router = zmq::socket_t(context, zmq::socket_type::router);
    router.set(zmq::sockopt::linger, 0);
    EXPECT_TRUE(Await([this] {
      try {
        router.bind("tcp://127.0.0.1:" + std::to_string(port));
        return true;
      } catch (const zmq::error_t&) {
        return false;  // the old socket has not let go of the port yet
      }
    }));
  }

  // Takes the next request, which must come within `milliseconds`.
  bool TakeRequest(int milliseconds = 20000) {
    router.set(zmq::sockopt::rcvtimeo, milliseconds);
    zmq::message_t from;
    zmq::message_t payload;
    if (!router.recv(from) || !router.recv(payload)) return false;
    identity = std::move(from);
    return true;
  }
  void Answer(const std::string& code) {
    router.send(identity, zmq::send_flags::sndmore);
    router.send(zmq::buffer(code), zmq::send_flags::none);
  }
  auto AnswerNext(const std::string& code) {
    return std::jthread([this, code] {
      if (TakeRequest()) Answer(code);
    });
  }

  const std::uint16_t port = FreePort();
  const std::string address = "127.0.0.1:" + std::to_string(port);
  zmq::context_t context;
  zmq::socket_t router;
  zmq::message_t identity;
  ugs::Client client{address, PublicKeyPem(), std::chrono::milliseconds(300)};
};

TEST_F(ClientTest, ReturnsTheCodeWhateverItIs) {
  for (const int code : {0, 1, 2, -7}) {
    const auto server = AnswerNext(std::to_string(code));
    EXPECT_EQ(client.Greet(), code);
  }
  const auto server = AnswerNext("what");
  EXPECT_THROW(client.Greet(), std::runtime_error);
}

TEST_F(ClientTest, ASlowServerNeverHasASecondRequestOfTheSameClient) {
  EXPECT_EQ(client.Greet(), std::nullopt);
  EXPECT_EQ(client.Greet(), std::nullopt);
  ASSERT_TRUE(TakeRequest());
  EXPECT_FALSE(TakeRequest(200));
  Answer("2");  // late: it must not be taken for the next request's
  const auto server = AnswerNext("1");
  EXPECT_EQ(client.Greet(), 1);
}

TEST_F(ClientTest, AfterALostConnectionItAsksAnew) {
  const auto asked = [this] {
    return client.Greet();
  };
  EXPECT_EQ(asked(), std::nullopt);
  router.close();
  EXPECT_EQ(asked(), std::nullopt);
  Bind();
  const auto server = AnswerNext("1");
  EXPECT_TRUE(Await([&] { return asked() == 1; }));
}

TEST_F(ClientTest, WithoutAServerNothingIsQueuedForLater) {
  router.close();
  ugs::Client early(address, PublicKeyPem(), std::chrono::milliseconds(50));
  EXPECT_EQ(early.Greet(), std::nullopt);
  EXPECT_EQ(early.Greet(), std::nullopt);
  Bind();
  EXPECT_FALSE(TakeRequest(500));
}

TEST_F(ClientTest, AReporterReportsOncePerPeriodUntilItIsDestroyed) {
  std::atomic<int> counted = 0;
  {
    const ugs::Reporter reporter(
        address, PublicKeyPem(), [] { return ugs::Usage{.id = "i", .cameras = {"c"}}; },
        std::chrono::milliseconds(20), [&](std::optional<int> code) { counted += code == 0 ? 1 : 0; });
    for (int i = 0; i < 5; ++i) {
      ASSERT_TRUE(TakeRequest());
      Answer("0");
    }
    EXPECT_TRUE(Await([&] { return counted == 5; }));
    ASSERT_TRUE(TakeRequest());  // destroyed while this one is waiting for its answer of 30 s
  }
  EXPECT_EQ(counted, 5);
}

TEST_F(ClientTest, AReporterSurvivesASourceThatThrows) {
  std::atomic<int> unanswered = 0;
  const ugs::Reporter reporter(
      address, PublicKeyPem(), []() -> ugs::Usage { throw std::runtime_error("no figures"); },
      std::chrono::milliseconds(5), [&](std::optional<int> code) { unanswered += code ? 0 : 1; });
  EXPECT_TRUE(Await([&] { return unanswered > 2; }));
}

}  // namespace
