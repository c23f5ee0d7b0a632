#include "UgsClient.h"

#include <gtest/gtest.h>
#include <rapidjson/document.h>

#include <stdexcept>
#include <thread>

#include "JsonReader.h"
#include "KorvaneControllerServer.h"
#include "TestSupport.h"
#include "UGSRequest.h"

namespace {

TEST(WriteDocumentTest, TheServerReadsEveryLayoutBack) {
  for (const std::string& layout : ugs::LayoutNames()) {
    ugs::Report report{
        .id = "i\"d\n", .container = "docker", .cameras = {"rtsp://a?x=\\", "b"}, .layout = layout};
    std::uint32_t next = 4294967295;
    for (const std::string& key : ugs::CountKeys(layout)) report.counts[key] = next--;
    rapidjson::Document document;
    ASSERT_TRUE(ParseJson(ugs::WriteDocument(report), document));
    UGSRequest::RequestData data;
    ASSERT_EQ(UGSRequest::Parse(document, data), UGSDefs::Ok) << layout;
    EXPECT_EQ(data.korvaneId, report.id);
    EXPECT_EQ(data.dockerId, report.container);
    EXPECT_EQ(data.camRtspUrls, report.cameras);
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

TEST(ClientTest, ALateAnswerIsNotTakenForTheNextOnes) {
  const std::uint16_t port = FreePort();
  zmq::context_t context;
  zmq::socket_t router(context, zmq::socket_type::router);
  router.bind("tcp://127.0.0.1:" + std::to_string(port));
  const auto answer = [&router] {
    zmq::message_t identity;
    zmq::message_t payload;
    ASSERT_TRUE(router.recv(identity) && router.recv(payload));
    router.send(identity, zmq::send_flags::sndmore);
    router.send(zmq::str_buffer("0"), zmq::send_flags::none);
  };
  ugs::Client client("127.0.0.1:" + std::to_string(port), PublicKeyPem(), std::chrono::milliseconds(200));
  EXPECT_EQ(client.Greet(), std::nullopt);
  answer();
  std::thread server(answer);
  EXPECT_EQ(client.Greet(), 0);
  server.join();
}

}  // namespace
