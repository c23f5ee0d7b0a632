#include "KorvaneControllerServer.h"

#include <gtest/gtest.h>
#include <openssl/err.h>

#include <chrono>

#include "Crypto.h"
#include "TestSupport.h"

namespace {

constexpr const char* kDecrypt = "KorvaneControllerServer::DecryptData";

// What each kind of request is answered, and what it prints, stands in docs/vectors and is tested with them.
class ProcessDataTest : public testing::Test {
 protected:
  CapturedLog log;
  KorvaneControllerServer server{true, 0, ScrambledPrivateKey(), nullptr};
};

TEST_F(ProcessDataTest, AKeyThatCannotBeReadRefusesEveryEnvelope) {
  KorvaneControllerServer keyless(true, 0, Base64Encode("no key"), nullptr);
  testing::internal::CaptureStdout();
  EXPECT_EQ(keyless.ProcessData(Seal("{hello}")), UGSDefs::Failed);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "Error 0x00AE08: Cannot read the private key\n");
  EXPECT_EQ(log.Lines(), std::vector{ErrorLine(kDecrypt, "Error 0x00AE06: Decryption fail\n")});
}

TEST_F(ProcessDataTest, ErrorsOfOpenSslDoNotPileUp) {
  // No key of ours can have wrapped a block of this length.
  const std::string block(400, 'A');
  EXPECT_EQ(server.ProcessData(Base64Encode(R"({"data1":")" + block + R"(","data2":"","data3":""})")),
            UGSDefs::Failed);
  EXPECT_EQ(server.ProcessData(Seal("{hello}")), UGSDefs::Hello);
  EXPECT_EQ(ERR_peek_error(), 0U);
}

TEST_F(ProcessDataTest, PlainModeTakesDocumentsAndKnowsNoGreeting) {
  KorvaneControllerServer plain(false, 0, "", nullptr);
  EXPECT_EQ(plain.ProcessData(DocumentText{}.Write()), UGSDefs::Ok);
  log.Clear();
  EXPECT_EQ(plain.ProcessData("{hello}"), UGSDefs::Failed);
  EXPECT_EQ(log.Lines(), std::vector{ErrorLine("UGSRequest::Parse", "Error 0x476:: invalid data\n")});
}

TEST_F(ProcessDataTest, PlaintextIsAppendedUpToItsLastBrace) {
  std::vector<char> plaintext{'x'};
  EXPECT_EQ(server.DecryptData(Seal("{a}b}c"), plaintext), 5);
  EXPECT_EQ(std::string(plaintext.begin(), plaintext.end()), "x{a}b}");
}

class IntakeTest : public testing::Test {
 protected:
  const std::uint16_t port = FreePort();
  CapturedLog log;
  KorvaneControllerServer server{true, port, ScrambledPrivateKey(), std::make_unique<KorvaneUGSZMQ>()};
};

TEST_F(IntakeTest, ABurstIsAnsweredInOrderOneRequestATurn) {
  server.Start();
  Peer peer(port);
  peer.Send(Seal("{hello}"));
  EXPECT_EQ(peer.Receive(), "1");
  const auto start = std::chrono::steady_clock::now();
  for (int i = 0; i < 10; ++i) {
    peer.Send(Seal(DocumentText{}.Write()));
    peer.Send("garbage");
  }
  for (int i = 0; i < 10; ++i) {
    EXPECT_EQ(peer.Receive(), "0");
    EXPECT_EQ(peer.Receive(), "2");
  }
  // Each turn begins with a sleep of 10 ms, and the first may have begun before the burst.
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(190));
}

TEST_F(IntakeTest, StartedAgainItServesOnWithItsRegistry) {
  server.Start();
  server.Start();
  Peer peer(port);
  peer.Send(Seal(DocumentText{.raw = {{"MaxCameras", "3"}}}.Write()));
  EXPECT_EQ(peer.Receive(), "0");
  server.Start();
  EXPECT_EQ(server.Records().TotalCameras(), 3U);
}

TEST_F(IntakeTest, TheSweepRunsWithoutRequests) {
  StandingClock clock(1000);
  UGSRequest::RequestData request{.camRtspUrls = {"b"}, .korvaneId = "a"};
  server.Records().ApplyRequest(request);
  clock.now = 2000;
  server.Start();
  EXPECT_TRUE(
      Await([this] { return server.Records().Totals() == UsageCounts() && log.Lines().size() > 60; }));
  EXPECT_EQ(log.Count("Deleting korvane 89c4407b545986a as no new update after 1000 seconds\n"), 1U);
}

}  // namespace
