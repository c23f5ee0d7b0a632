#include "KorvaneControllerServer.h"

#include <gtest/gtest.h>
#include <openssl/err.h>

#include <algorithm>
#include <chrono>
#include <thread>

#include "TestSupport.h"

namespace {

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
  const std::string key(32, 'k');
  const std::string iv(16, 'i');
  const std::string outer = R"({"data1":")" + Base64Encode(WrapKey(key)) + R"(","data2":")" +
                            Base64Encode(iv) + R"(","other":{"a":1},"data3":")" +
                            Base64Encode(AesEncrypt(key, iv, "{hello}")) + R"("})";
  EXPECT_EQ(Process(Base64Encode(outer)), UGSDefs::Hello);
  EXPECT_EQ(Process(Base64Encode(outer + " and a tail")), UGSDefs::Hello);
  EXPECT_EQ(Process(Base64Encode(outer + "  ") + "\nZm9v"), UGSDefs::Hello);
  std::string broken = Base64Encode(outer);
  ExpectRefused(broken.insert(40, "\n"), {ErrorLine(kDecrypt, "Received Invalid Content 0x316\n")});
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
  ExpectRefused(EnvelopeOf(std::string(300, 'x'), "iv", "ciphertext"),
                {ErrorLine(kDecrypt, "Error 0x00AE06: Decryption fail\n")},
                "Envelope Error 0x00AE09: Failed to decrypt the file info\n");
}

TEST_F(ProcessDataTest, AKeyThatCannotBeReadRefusesEveryEnvelope) {
  KorvaneControllerServer keyless(true, 0, Base64Encode("no key"), nullptr);
  testing::internal::CaptureStdout();
  EXPECT_EQ(keyless.ProcessData(Seal("{hello}")), UGSDefs::Failed);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "Error 0x00AE08: Cannot read the private key\n");
  EXPECT_EQ(log.Lines(), std::vector{ErrorLine(kDecrypt, "Error 0x00AE06: Decryption fail\n")});
}

TEST_F(ProcessDataTest, AnyOpenedKeyIvAndCiphertextIsRefusedQuietly) {
  const std::string iv(16, 'i');
  for (const std::size_t keySize : {0U, 5U, 16U, 31U, 245U}) {
    const std::string block = WrapKey(std::string(keySize, 'k'));
    for (const std::size_t size : {0U, 1U, 16U, 17U, 33U}) {
      // None of these zeroes decrypts to a text with a brace under this key.
      ExpectRefused(EnvelopeOf(block, "iv3", std::string(size, '\0')), {});
      ExpectRefused(EnvelopeOf(block, "", std::string(size, '\0')), {});
    }
  }
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
  Process(EnvelopeOf(std::string(100, 'x'), "iv", "ciphertext"));
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

// Stands in for the transport: hands in what the test says and keeps the replies.
class FakeCommunicator : public KorvaneUGSCommunicator {
 public:
  struct Sent {
    std::string identity;
    std::string reply;
    std::chrono::steady_clock::time_point at;
  };
  struct Script {
    std::vector<std::string> calls;
    std::mutex mutex;  // guards sent
    std::vector<Sent> sent;
  };
  explicit FakeCommunicator(std::shared_ptr<Script> script) : script_(std::move(script)) {}
  ~FakeCommunicator() override {
    script_->calls.push_back(requestCallback ? "destroyed with callback" : "destroyed");
  }

  bool Start() override {
    script_->calls.push_back(requestCallback ? "start with callback" : "start");
    return true;
  }
  void Reply(std::string identity, std::string reply) override {
    const std::scoped_lock lock(script_->mutex);
    script_->sent.push_back({std::move(identity), std::move(reply), std::chrono::steady_clock::now()});
  }
  bool SetPort(std::uint32_t port) override {
    script_->calls.push_back("port " + std::to_string(port));
    return true;
  }

 private:
  std::shared_ptr<Script> script_;
};

class IntakeLoopTest : public testing::Test {
 protected:
  void SetUp() override {
    auto fake = std::make_unique<FakeCommunicator>(script);
    communicator = fake.get();
    server = std::make_unique<KorvaneControllerServer>(false, 1234, "", std::move(fake));
  }
  void Arrive(const std::string& identity, const std::string& payload) {
    communicator->requestCallback(identity, payload);
  }
  std::vector<FakeCommunicator::Sent> AwaitReplies(std::size_t count) {
    EXPECT_TRUE(Await([&] {
      const std::scoped_lock lock(script->mutex);
      return script->sent.size() >= count;
    }));
    const std::scoped_lock lock(script->mutex);
    return script->sent;
  }

  CapturedLog log;
  std::shared_ptr<FakeCommunicator::Script> script = std::make_shared<FakeCommunicator::Script>();
  FakeCommunicator* communicator = nullptr;
  std::unique_ptr<KorvaneControllerServer> server;
};

TEST_F(IntakeLoopTest, TheTransportIsStartedInOrderAndEmptiedBeforeItEnds) {
  EXPECT_TRUE(script->calls.empty());
  server->Start();
  EXPECT_TRUE(communicator->requestCallback);
  server.reset();
  EXPECT_EQ(script->calls, (std::vector<std::string>{"port 1234", "start", "destroyed"}));
}

TEST_F(IntakeLoopTest, ABurstIsAnsweredInOrderOneRequestATurn) {
  server->Start();
  Arrive("a", DocumentText{}.Write());
  Arrive("b", "no document");
  Arrive("c", DocumentText{.layout = ""}.Write());
  const auto sent = AwaitReplies(3);
  ASSERT_EQ(sent.size(), 3U);
  EXPECT_EQ(sent[0].identity + sent[1].identity + sent[2].identity, "abc");
  EXPECT_EQ(sent[0].reply + sent[1].reply + sent[2].reply, "020");
  // Each turn begins with a sleep of 10 ms after the turn before it.
  EXPECT_GE(sent[1].at - sent[0].at, std::chrono::milliseconds(10));
  EXPECT_GE(sent[2].at - sent[1].at, std::chrono::milliseconds(10));
}

TEST_F(IntakeLoopTest, StartedAgainItGoesOnWithTheQueue) {
  server->Start();
  server->Start();
  Arrive("a", "no document");
  EXPECT_EQ(AwaitReplies(1)[0].reply, "2");
}

TEST_F(IntakeLoopTest, TheSweepRunsWithoutRequests) {
  const StandingClock clock(1000);
  UGSRequest::RequestData request{.camRtspUrls = {"b"}, .korvaneId = "a", .timeStamp = -1};
  clockFunction = [calls = 0]() mutable {
    return ++calls < 10 ? 1000 : 2000;
  };
  server->Records().ApplyRequest(request);
  server->Start();
  EXPECT_TRUE(Await([this] {
    return log.Count("Deleting korvane 89c4407b545986a as no new update after 1000 seconds\n") == 1;
  }));
  server.reset();
}

TEST(KorvaneControllerServerTest, AnswersOverItsOwnTransport) {
  const CapturedLog log;
  const std::uint16_t port = FreePort();
  KorvaneControllerServer server(true, port);
  server.Start();
  Peer peer(port);
  peer.Send(Seal("{hello}"));
  peer.Send(Seal(DocumentText{}.Write()));
  peer.Send("garbage");
  EXPECT_EQ(peer.Receive(), "1");
  EXPECT_EQ(peer.Receive(), "0");
  EXPECT_EQ(peer.Receive(), "2");
}

}  // namespace
