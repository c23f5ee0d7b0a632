#include "KorvaneControllerServer.h"

#include <gtest/gtest.h>
#include <openssl/err.h>

#include <chrono>

#include "Envelope.h"
#include "TestSupport.h"

namespace {

// An envelope whose AES key no RSA key of ours can have wrapped: the block is too long.
const std::string kForeignKeyBlock =
    Base64Encode(R"({"data1":")" + std::string(400, 'A') + R"(","data2":"","data3":""})");
constexpr const char* kDecrypt = "KorvaneControllerServer::DecryptData";

class ProcessDataTest : public testing::Test {
 protected:
  std::int32_t Process(const std::string& payload) {
    log.Clear();
    testing::internal::CaptureStdout();
    const std::int32_t code = server.ProcessData(payload);
    console = testing::internal::GetCapturedStdout();
    return code;
  }

  void ExpectRefused(const std::string& payload, const std::vector<LogLine>& lines,
                     const std::string& printed = "") {
    EXPECT_EQ(Process(payload), UGSDefs::Failed) << payload.substr(0, 100);
    EXPECT_EQ(log.Lines(), lines) << payload.substr(0, 100);
    EXPECT_EQ(console, printed);
    EXPECT_EQ(server.Records().TotalCameras(), 0U);
  }

  CapturedLog log;
  KorvaneControllerServer server{true, 0, ScrambledPrivateKey(), nullptr};
  std::string console;
};

TEST_F(ProcessDataTest, ASealedReportIsCounted) {
  EXPECT_EQ(Process(Seal(DocumentText{.raw = {{"MaxCameras", "4"}}}.Write())), UGSDefs::Ok);
  EXPECT_EQ(server.Records().TotalCameras(), 4U);
}

TEST_F(ProcessDataTest, TheGreetingIsAnsweredAndCountsNothing) {
  EXPECT_EQ(Process(Seal("{hello}")), UGSDefs::Hello);
  EXPECT_TRUE(log.Lines().empty());
  ExpectRefused(Seal("{hello} }"), {ErrorLine("UGSRequest::Parse", "Error 0x476:: invalid data\n")});
}

TEST_F(ProcessDataTest, BytesBehindTheEnvelopeAndAfterALineBreakAreCutOff) {
  const std::string outer = Base64Decode(Seal("{hello}"));
  EXPECT_EQ(Process(Base64Encode(outer + " and a tail")), UGSDefs::Hello);
  EXPECT_EQ(Process(Base64Encode(outer + "  ") + "\nZm9v"), UGSDefs::Hello);
  EXPECT_EQ(Process(Base64Encode("{\"other\":{}," + outer.substr(1))), UGSDefs::Hello);
  ExpectRefused(Base64Encode(outer).insert(40, "\n"),
                {ErrorLine(kDecrypt, "Received Invalid Content 0x316\n")});
}

TEST_F(ProcessDataTest, AnEnvelopeThatIsNotOneIsRefusedWithItsLine) {
  const std::vector<LogLine> invalid{ErrorLine(kDecrypt, "Received Invalid Content 0x316\n")};
  for (const std::string& payload :
       {std::string("x"), std::string("{}"), Base64Encode("no brace"), std::string("\xff\0", 2)}) {
    ExpectRefused(payload, invalid);
  }
  for (const char* outer :
       {"}", "7}", "[]}", "{\"data1\":}", "[{}", "{}}", "{\"a\":0.00000000000000001e-2147483639"}) {
    ExpectRefused(Base64Encode(std::string(outer)),
                  std::string(outer).find('}') == std::string::npos ? invalid : std::vector<LogLine>{});
  }
  ExpectRefused(Base64Encode(std::string(2'000'000, '[') + "}"), {});
}

TEST_F(ProcessDataTest, AMissingOrMistypedMemberIsNamed) {
  const auto refused = [this](const char* outer, const char* code) {
    ExpectRefused(Base64Encode(outer),
                  {ErrorLine(kDecrypt, std::string("Error ") + code + ": Missing content\n")});
  };
  refused("{}", "0x00AE03");
  refused(R"({"data1":7,"data2":"","data3":""})", "0x00AE03");
  refused(R"({"data1":"","data3":""})", "0x00AE04");
  refused(R"({"data1":"","data2":null,"data3":""})", "0x00AE04");
  refused(R"({"data1":"","data2":""})", "0x00AE05");
  refused(R"({"data1":"","data2":"","data3":[]})", "0x00AE05");
}

TEST_F(ProcessDataTest, AKeyBlockThatCannotBeOpenedIsLoggedTwice) {
  ExpectRefused(kForeignKeyBlock, {ErrorLine(kDecrypt, "Error 0x00AE06: Decryption fail\n")},
                "Envelope Error 0x00AE09: Failed to decrypt the file info\n");
}

TEST_F(ProcessDataTest, AKeyThatCannotBeReadRefusesEveryEnvelope) {
  KorvaneControllerServer keyless(true, 0, Base64Encode("no key"), nullptr);
  testing::internal::CaptureStdout();
  EXPECT_EQ(keyless.ProcessData(Seal("{hello}")), UGSDefs::Failed);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "Error 0x00AE08: Cannot read the private key\n");
  EXPECT_EQ(log.Lines(), std::vector{ErrorLine(kDecrypt, "Error 0x00AE06: Decryption fail\n")});
}

TEST_F(ProcessDataTest, SealedTextThatIsNotADocumentIsRefused) {
  const std::vector<LogLine> invalid{ErrorLine("UGSRequest::Parse", "Error 0x476:: invalid data\n")};
  for (const std::string& plaintext : {std::string("{a}"), std::string("[{}"),
                                       std::string(2'000'000, '[') + "}", std::string("{\"a\":1e999}")}) {
    ExpectRefused(Seal(plaintext), invalid);
  }
  ExpectRefused(Seal("no brace"), {});
}

TEST_F(ProcessDataTest, AReportWithoutIdentityIsLoggedByRegistryAndIntake) {
  const char* text = "Error 0x442:: something wrong\n";
  ExpectRefused(Seal(DocumentText{.raw = {{"CamRtspUrls", "[]"}}}.Write()),
                {ErrorLine("UsageRecords::ApplyRequest", text),
                 ErrorLine("KorvaneControllerServer::ProcessData", text)});
}

TEST_F(ProcessDataTest, ErrorsOfOpenSslDoNotPileUp) {
  Process(kForeignKeyBlock);
  EXPECT_EQ(Process(Seal("{hello}")), UGSDefs::Hello);
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
  KorvaneControllerServer server{true, port};
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
