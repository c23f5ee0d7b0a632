#include "KorvaneControllerServer.h"

#include <gtest/gtest.h>
#include <openssl/err.h>
#include <spdlog/spdlog.h>

#include <algorithm>
#include <chrono>
#include <mutex>

#include "Base64.h"
#include "PrivateKey.h"
#include "Redirected.h"
#include "ScrambledKey.h"
#include "TestSupport.h"
#include "UgsClient.h"

namespace {

using namespace std::chrono_literals;

std::string Document(std::uint32_t cameras) {
  return ugs::WriteDocument({.id = "i", .cameras = {"c"}, .counts = {{"MaxCameras", cameras}}});
}

// What each kind of request is answered, and what it prints, stands in docs/vectors and is tested with them.
class ProcessDataTest : public testing::Test {
 protected:
  CapturedLog log;
  KorvaneControllerServer server{true, 0, ScrambledPrivateKey(), nullptr};
};

TEST_F(ProcessDataTest, ErrorsOfOpenSslDoNotPileUp) {
  // No key of ours can have wrapped a block of this length.
  const std::string block(400, 'A');
  EXPECT_EQ(server.ProcessData(ugs::Base64Encode(R"({"data1":")" + block + R"(","data2":"","data3":""})")),
            UGSDefs::Failed);
  EXPECT_EQ(server.ProcessData(Seal("{hello}")), UGSDefs::Hello);
  EXPECT_EQ(ERR_peek_error(), 0U);
}

TEST_F(ProcessDataTest, PlainModeTakesDocumentsAndKnowsNoGreeting) {
  KorvaneControllerServer plain(false, 0, "", nullptr);
  EXPECT_EQ(plain.ProcessData(Document(1)), UGSDefs::Ok);
  EXPECT_EQ(plain.ProcessData("{hello}"), UGSDefs::Failed);
  EXPECT_EQ(log.Lines().back(), "error UGSRequest::Parse: Error 0x476:: invalid data\n");
}

TEST_F(ProcessDataTest, PlaintextIsAppendedUpToItsLastBrace) {
  std::vector<char> plaintext{'x'};
  EXPECT_EQ(server.DecryptData(Seal("{a}b}c"), plaintext), 5);
  EXPECT_EQ(std::string(plaintext.begin(), plaintext.end()), "x{a}b}");
}

// The linker shows what is wiped (Redirected.h).
TEST_F(ProcessDataTest, NothingSecretOfAReportStaysBehind) {
  const std::string storedKey(ScrambledPrivateKey());
  const std::string pem = ugs::UnscrambleKey(storedKey);
  std::string der = pem.substr(pem.find('\n'), pem.rfind("-----END") - pem.find('\n'));
  std::erase(der, '\n');

  TakeWiped();
  const std::string document = Document(1);
  EXPECT_EQ(TakeWiped(), std::vector{document});  // the buffer it was written in
  const std::string envelope = Seal(document);
  const auto aesKeys = TakeWiped();
  ASSERT_EQ(aesKeys.size(), 1U);
  EXPECT_EQ(aesKeys[0].size(), 32U);
  {
    KorvaneControllerServer one(true, 0, storedKey, nullptr);
    EXPECT_EQ(one.ProcessData(envelope), UGSDefs::Ok);
    const auto wiped = TakeWiped();
    for (const std::string& secret : {pem, ugs::Base64Decode(der), aesKeys[0], document}) {
      EXPECT_EQ(std::ranges::count(wiped, secret), 1);
    }
    EXPECT_TRUE(std::ranges::any_of(wiped, [&](const std::string& bytes) {  // with its padding
      return bytes.size() > document.size() && bytes.starts_with(document);
    }));
  }
  EXPECT_EQ(TakeWiped(), std::vector{storedKey});
}

// What a FakeTransport saw; outlives it.
struct Seen {
  std::mutex mutex;  // guards the next two
  std::vector<std::string> replies;
  std::vector<std::chrono::steady_clock::time_point> times;  // of the replies
  bool callbackWasEmptied = false;                           // before the transport's end
};

// A transport within this process.
class FakeTransport : public KorvaneUGSCommunicator {
 public:
  explicit FakeTransport(Seen& seen) : seen_(seen) {}
  ~FakeTransport() override {
    seen_.callbackWasEmptied = CopyRequestCallback() == nullptr;
    if (copied_) copied_("on its way", "request");
  }
  using KorvaneUGSCommunicator::RequestsAreHeld;
  bool Start() override { return true; }
  bool SetPort(std::uint32_t /*port*/) override { return true; }
  void Reply(std::string identity, std::string reply) override {
    const std::scoped_lock lock(seen_.mutex);
    seen_.replies.push_back(std::move(identity) + reply);
    seen_.times.push_back(std::chrono::steady_clock::now());
  }
  void Request(const std::string& identity, const std::string& payload) {
    copied_ = CopyRequestCallback();
    copied_(identity, payload);
  }

 private:
  Seen& seen_;
  RequestCallback copied_;
};

class IntakeTest : public testing::Test {
 protected:
  IntakeTest() {
    auto owned = std::make_unique<FakeTransport>(seen);
    transport = owned.get();
    server = std::make_unique<KorvaneControllerServer>(false, 0, "", std::move(owned));
    server->Start();
  }

  std::size_t Replies() {
    const std::scoped_lock lock(seen.mutex);
    return seen.replies.size();
  }
  // Of all times between two replies.
  auto ShortestPause() {
    const std::scoped_lock lock(seen.mutex);
    auto shortest = std::chrono::steady_clock::duration::max();
    for (std::size_t i = 1; i < seen.times.size(); ++i) {
      shortest = std::min(shortest, seen.times[i] - seen.times[i - 1]);
    }
    return shortest;
  }

  CapturedLog log;
  Seen seen;
  FakeTransport* transport = nullptr;
  std::unique_ptr<KorvaneControllerServer> server;
};

TEST_F(IntakeTest, ABurstIsAnsweredInOrderOneRequestEvery10Milliseconds) {
  std::vector<std::string> expected;
  for (int i = 0; i < 10; ++i) {
    const std::string identity = "peer " + std::to_string(i) + ": ";
    transport->Request(identity, i % 2 == 0 ? Document(1) : "garbage");
    expected.push_back(identity + (i % 2 == 0 ? "0" : "2"));
  }
  EXPECT_TRUE(Await([&] { return Replies() == expected.size(); }));
  EXPECT_EQ(seen.replies, expected);
  // A busy machine makes some pauses longer, but not all for 20 s.
  EXPECT_TRUE(Await([&] {
    transport->Request("", "garbage");
    return ShortestPause() < 15ms;
  }));
  EXPECT_GE(ShortestPause(), 10ms);
}

TEST_F(IntakeTest, RequestsAreHeldWhileItsQueueIsFull) {
  for (int i = 0; i < 20; ++i) transport->Request("", "garbage");
  EXPECT_FALSE(transport->RequestsAreHeld());
  for (int i = 0; i < 40; ++i) transport->Request("", "garbage");
  EXPECT_TRUE(transport->RequestsAreHeld());
  EXPECT_TRUE(Await([this] { return !transport->RequestsAreHeld(); }));
  EXPECT_GE(Replies() + 1, 60U - 32U);  // the one that made room may be in work
}

TEST_F(IntakeTest, MemoryGoesBackToTheSystemNowAndThenAndAtTheEnd) {
  trims = 0;
  waitsAreInstant = true;
  EXPECT_TRUE(Await([] { return trims > 0; }));
  waitsAreInstant = false;
  const int before = trims;
  server.reset();
  EXPECT_GT(trims, before);
}

TEST_F(IntakeTest, AtTheEndTheCallbackIsEmptiedAndTheLoopJoinedBeforeTheTransportGoes) {
  for (int i = 0; i < 100; ++i) transport->Request("", "garbage");
  EXPECT_TRUE(Await([this] { return Replies() > 2; }));
  server.reset();
  EXPECT_TRUE(seen.callbackWasEmptied);
  EXPECT_LT(seen.replies.size(), 100U);
}

TEST_F(IntakeTest, StartedAgainItServesOnWithItsRegistry) {
  server->Start();
  transport->Request("", Document(3));
  EXPECT_TRUE(Await([this] { return Replies() == 1; }));
  server->Start();
  EXPECT_EQ(server->Records().TotalCameras(), 3U);
}

TEST_F(IntakeTest, TheSweepRunsWithoutRequests) {
  FakeClock clock(1000);
  KorvaneControllerServer idle(false, 0, "", nullptr);
  UGSRequest::RequestData request{.camRtspUrls = {"b"}, .korvaneId = "a"};
  idle.Records().ApplyRequest(request);
  clock.now = 2000;
  idle.Start();
  EXPECT_TRUE(Await([this] {
    return log.Count("Deleting korvane 89c4407b545986a as no new update after 1000 seconds\n") == 1;
  }));
}

}  // namespace
