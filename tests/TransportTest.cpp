#include <gtest/gtest.h>
#include <rapidjson/document.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <map>
#include <mutex>
#include <set>
#include <stdexcept>
#include <system_error>

#include "Base64.h"
#include "BlockedSignals.h"
#include "JsonReader.h"
#include "KorvaneControllerServer.h"
#include "KorvaneUGSZMQ.h"
#include "PrivateKey.h"
#include "Redirected.h"
#include "ReporterLoop.h"
#include "Sealer.h"
#include "TestSupport.h"
#include "UgsClient.h"
#include "ugs_client.h"

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

std::string TextOf(const char* file) {
  std::ifstream stream(file);
  return {std::istreambuf_iterator<char>(stream), {}};
}

ugs::Usage SomeUsage() {
  return {.id = "i", .cameras = {"c"}};
}

class ClientTest : public TransportTest {
 protected:
  ClientTest() { ugs::ReporterLoop::shortestPeriod = 1ms; }
  ~ClientTest() override { ugs::ReporterLoop::shortestPeriod = ugs::kShortestPeriod; }

  // Reports every 20 ms, and keeps the outcomes.
  std::unique_ptr<ugs::Reporter> Reporting(ugs::Reporter::Source source = SomeUsage,
                                           std::chrono::milliseconds period = 20ms) {
    const auto keep = [this](const ugs::Outcome& outcome) {
      const std::scoped_lock lock(mutex);
      outcomes.push_back(outcome);
    };
    return std::make_unique<ugs::Reporter>(address, PublicKeyPem(), std::move(source), period, keep, 1h);
  }
  std::vector<ugs::Outcome> Outcomes() {
    const std::scoped_lock lock(mutex);
    return outcomes;
  }
  bool AwaitCounted(std::ptrdiff_t number) {
    return Await([&] { return std::ranges::count(Outcomes(), 0, &ugs::Outcome::code) >= number; });
  }

  const std::string address = "127.0.0.1:" + std::to_string(port);
  ugs::Client client{address, PublicKeyPem(), std::chrono::milliseconds::max()};
  ugs::Client hasty{address, PublicKeyPem(), 400ms};
  std::vector<ugs::Outcome> outcomes;  // guarded by `mutex`
};

TEST_F(ClientTest, ReturnsTheCodeWhateverItIs) {
  for (const int code : {0, 1, 2, -7}) {
    AnswerWith(std::to_string(code));
    EXPECT_EQ(client.Greet(), code);
    EXPECT_EQ(client.LastError().kind, code == 2 ? ugs::ErrorKind::Refused : ugs::ErrorKind::None);
  }
  AnswerWith("1x");
  EXPECT_EQ(client.Greet(), std::nullopt);
  const ugs::Counters counters = client.GetCounters();
  EXPECT_EQ((std::vector{counters.sent, counters.counted, counters.refused, counters.unanswered}),
            (std::vector<std::uint64_t>{5, 1, 1, 1}));
  EXPECT_LT(std::chrono::system_clock::now() - counters.lastCounted.value(), 20s);
}

TEST_F(ClientTest, AnAnswerThatStaysAwayIsGivenUpWithItsConnection) {
  EXPECT_TRUE(Await([this] { return hasty.Greet(), AnswerWith("") == 1; }));
  EXPECT_EQ(hasty.LastError().kind, ugs::ErrorKind::NoAnswer);
  transport->Reply(Received(0).first, "2");  // late: it must not be taken for the next request's
  AnswerWith("1");
  std::optional<int> code;
  EXPECT_TRUE(Await([&] { return (code = hasty.Greet()).has_value(); }));
  EXPECT_EQ(code, 1);
  EXPECT_EQ(AnswerWith(""), 2U);
  EXPECT_EQ(hasty.GetCounters().reconnects, 1U);
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
  EXPECT_EQ(hasty.LastError().kind, ugs::ErrorKind::NotConnected);
  transport = std::make_unique<KorvaneUGSZMQ>();
  Start();
  EXPECT_TRUE(Await([this] { return hasty.Greet() == 1; }));
  EXPECT_EQ(AnswerWith(""), 2U);
}

TEST_F(ClientTest, SaysWhyNothingWasSent) {
  ugs::Client nowhere("no-such-host.invalid", PublicKeyPem());
  EXPECT_EQ(nowhere.Greet(), std::nullopt);
  EXPECT_EQ(nowhere.LastError().kind, ugs::ErrorKind::NoSuchHost);
  EXPECT_THROW(client.Report({}), std::invalid_argument);
  EXPECT_EQ(client.LastError().text, "KorvaneID is empty");
  ugs::Client moved(std::move(client));
  EXPECT_THROW(client.Greet(), std::logic_error);
}

TEST_F(ClientTest, AResolverThatDoesNotAnswerHoldsUpNobody) {
  resolverIsStuck = true;
  ugs::Client impatient("stuck.invalid", PublicKeyPem(), 100ms);
  EXPECT_EQ(impatient.Greet(), std::nullopt);
  EXPECT_EQ(impatient.LastError().text, "host stuck.invalid: the resolver does not answer");
  auto reporter = std::make_unique<ugs::Reporter>(
      "stuck.invalid", PublicKeyPem(), SomeUsage, 20ms, [](const ugs::Outcome&) {}, 1h);
  EXPECT_TRUE(Await([] { return stuckLookups == 2; }));
  reporter.reset();
  { const ugs::Client gone(std::move(impatient)); }
  EXPECT_EQ(stuckLookups, 2);
  resolverIsStuck = false;
  resolverIsStuck.notify_all();
  EXPECT_TRUE(Await([] { return stuckLookups == 0; }));
}

TEST_F(ClientTest, AChangedKeyFileIsReadAgainAfterARefusal) {
  const std::string file = testing::TempDir() + "ugs-key-" + std::to_string(getpid());
  std::ofstream(file) << TextOf(UGS_VECTOR_KEY);
  ugs::Client rekeyed(address, file);
  AnswerWith("2");
  EXPECT_EQ(rekeyed.Greet(), 2);
  std::ofstream(file) << PublicKeyPem();
  EXPECT_EQ(rekeyed.Greet(), 2);
  EXPECT_EQ(rekeyed.Greet(), 2);
  KorvaneControllerServer server(true, 0, ScrambledPrivateKey(), nullptr);
  EXPECT_EQ(server.ProcessData(Received(1).second), UGSDefs::Failed);
  EXPECT_EQ(server.ProcessData(Received(2).second), UGSDefs::Hello);
  std::remove(file.c_str());
}

TEST_F(ClientTest, SignalsOfItsHostCostNothing) {
  AnswerWith("0");
  {
    const ugs::BlockedSignals block;  // on the transport's thread, as the server does
    Start();
  }
  const std::array signals{SIGCHLD, SIGUSR1, SIGALRM};
  struct sigaction handled = {};
  handled.sa_handler = [](int) {
  };
  for (const int signal : signals) sigaction(signal, &handled, nullptr);
  std::vector<std::unique_ptr<ugs::Reporter>> reporters(10);
  for (auto& reporter : reporters) reporter = Reporting();
  std::atomic<bool> done = false;
  std::jthread caller([&] {
    while (!done) EXPECT_EQ(client.Greet(), 0) << client.LastError().text;
  });
  for (std::size_t sent = 0; sent < 10'000;) {
    for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
      tgkill(getpid(), std::stoi(task.path().filename()), signals[sent++ % signals.size()]);
    }
  }
  done = true;
  for (const auto& reporter : reporters) {
    const std::uint64_t before = reporter->GetCounters().counted;
    EXPECT_TRUE(Await([&] { return reporter->GetCounters().counted > before; }));
  }
  for (const ugs::Outcome& outcome : Outcomes()) EXPECT_EQ(outcome.code, 0) << outcome.text;
}

// libzmq ends the process at some limits.
TEST_F(ClientTest, WithoutDescriptorsItThrowsOrSaysSoAndGoesOnOnceThereAreSome) {
#ifdef __SANITIZE_ADDRESS__
  GTEST_SKIP() << "its sanitizers need descriptors themselves, to look at an object before a call";
#endif
  AnswerWith("1");
  EXPECT_EQ(client.Greet(), 1);
  const auto open = std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
  rlimit before = {};
  getrlimit(RLIMIT_NOFILE, &before);
  int thrown = 0;
  int connected = 0;
  for (rlim_t limit = static_cast<rlim_t>(open); limit < static_cast<rlim_t>(open) + 30; ++limit) {
    const rlimit tight{limit, before.rlim_max};
    setrlimit(RLIMIT_NOFILE, &tight);
    try {
      ugs::Client one(address, PublicKeyPem(), 200ms);
      connected += one.Greet() == 1;
      EXPECT_TRUE(one.LastError().kind == ugs::ErrorKind::None || !one.LastError().text.empty());
    } catch (const std::system_error& error) {
      EXPECT_EQ(error.code().value(), EMFILE);
      ++thrown;
    }
    setrlimit(RLIMIT_NOFILE, &before);
  }
  EXPECT_GT(thrown, 0);
  EXPECT_GT(connected, 0);
  EXPECT_EQ(client.Greet(), 1);
}

TEST_F(ClientTest, AChildOfItsProcessIsTurnedAwayAndEndsAtOnceAndTheParentGoesOn) {
#ifdef __SANITIZE_THREAD__
  GTEST_SKIP() << "ThreadSanitizer knows no threads of a child";
#endif
  using Clock = std::chrono::steady_clock;  // the same in both processes
  AnswerWith("0");
  // Idle at the fork: the child would keep the locks that a report takes, of this test or a sanitizer's.
  auto reporter = Reporting(SomeUsage, ugs::kLongestPeriod);
  reporter->ReportNow();
  EXPECT_TRUE(AwaitCounted(1));
  const std::size_t before = Outcomes().size();
  void* shared =
      mmap(nullptr, sizeof(Clock::time_point), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  ASSERT_NE(shared, MAP_FAILED);
  auto& ending = *new (shared) Clock::time_point;
  const auto beTheChild = [&] {
    alarm(30);
    bool good = false;
    try {
      client.Greet();
    } catch (const std::runtime_error&) {
      good = true;
    }
    // As if it had become a daemon: the parent's reporter is silent here, and says so.
    while (outcomes.size() == before) usleep(10'000);
    good = good && outcomes.back().kind == ugs::ErrorKind::BadUsage;
    ending = Clock::now();
    reporter.reset();
    { const ugs::Client gone(std::move(client)); }
#ifdef __SANITIZE_ADDRESS__
    _exit(good ? 0 : 1);  // what the child has let go of is a leak to it
#endif
    std::exit(good ? 0 : 1);
  };
  Clock::duration shortest = 1h;
  for (int i = 0; i < 10 && shortest > 100ms; ++i) {  // a busy machine may hold up some of them
    const pid_t child = fork();
    if (child == 0) beTheChild();
    int status = -1;
    waitpid(child, &status, 0);
    ASSERT_EQ(status, 0);
    shortest = std::min(shortest, Clock::now() - ending);
  }
  EXPECT_LE(shortest, 100ms);
  munmap(shared, sizeof(Clock::time_point));
  EXPECT_EQ(client.Greet(), 0);
  reporter->ReportNow();
  EXPECT_TRUE(AwaitCounted(2));
}

TEST_F(ClientTest, AReporterReportsOncePerPeriodUntilItIsDestroyed) {
  AnswerWith("0");
  const auto reporter = Reporting();
  EXPECT_TRUE(AwaitCounted(5));
  Received(AnswerWith(""));  // destroyed while this one is waiting for its answer
}

TEST_F(ClientTest, AReporterReportsWhenAskedAndSignsOffWithNothingInUse) {
  AnswerWith("0");
  const auto usage = [] {
    ugs::Usage used = SomeUsage();
    used.SetCount("PX", 3);
    return used;
  };
  const auto reporter = Reporting(usage, ugs::kLongestPeriod);
  reporter->ReportNow();
  EXPECT_TRUE(AwaitCounted(1));
  EXPECT_EQ(reporter->SignOff(), 0);
  KorvaneControllerServer server(true, 0, ScrambledPrivateKey(), nullptr);
  for (const std::uint32_t inUse : {3U, 0U}) {
    server.ProcessData(Received(inUse == 0 ? 1 : 0).second);
    EXPECT_EQ(server.Records().Totals().numPX, inUse);
  }
}

TEST_F(ClientTest, AReporterSurvivesWhatItsHostThrowsAndItsOwnEnd) {
  AnswerWith("0");
  const auto source = [calls = 0]() mutable {
    if (++calls == 1) throw 7;
    return SomeUsage();
  };
  std::unique_ptr<ugs::Reporter> reporter;
  std::atomic<int> heard = 0;
  std::atomic<bool> made = false;
  const auto listener = [&](const ugs::Outcome& outcome) {
    if (++heard == 1) {
      EXPECT_EQ(outcome.kind, ugs::ErrorKind::BadUsage);
      throw std::runtime_error("from a listener");
    }
    made.wait(false);
    reporter.reset();
    heard = 100;
  };
  Strings lines;
  const auto keepLine = [&](const std::string& line) {
    lines.push_back(line);
  };
  reporter = std::make_unique<ugs::Reporter>(address, PublicKeyPem(), source, 20ms, listener, 1h, keepLine);
  made = true;
  made.notify_all();
  EXPECT_TRUE(Await([&] { return heard == 100; }));
  EXPECT_EQ(lines, (Strings{"an exception of an unknown type", "the listener threw: from a listener"}));
}

TEST_F(ClientTest, AReporterThatFailsTriesAgainSoonAndThenLessAndLessOften) {
  const auto reporter = Reporting([]() -> ugs::Usage { throw std::runtime_error("no figures"); });
  const auto hasFailed = [this](std::size_t times) {
    return Await([&] { return Outcomes().size() >= times; });
  };
  EXPECT_TRUE(hasFailed(2));
  const auto start = std::chrono::steady_clock::now();
  EXPECT_TRUE(hasFailed(6));
  EXPECT_GE(std::chrono::steady_clock::now() - start, 40ms + 80ms + 160ms);
}

TEST(PauseAfterTest, TheFirstIsShortEnoughForALostReportAndTheyDoubleUpTo100s) {
  std::minstd_rand random;
  std::vector<std::chrono::milliseconds> longest(8);
  for (int i = 0; i < 800; ++i) {
    auto& most = longest[static_cast<std::size_t>(i % 8)];
    most = std::max(most, ugs::PauseAfter(i % 8 + 1, 75s, random));
  }
  const std::vector<std::chrono::seconds> bounds{10s, 20s, 40s, 80s, 100s, 100s, 100s, 100s};
  for (std::size_t i = 0; i < bounds.size(); ++i) {
    EXPECT_LE(longest[i], bounds[i]);  // so the gap of 75 s, a time-out of 30 s and the first is below 118 s
    EXPECT_GE(longest[i], bounds[i] * 3 / 4);
  }
}

TEST_F(ClientTest, AGroupReportsForThoseThatHaveJoined) {
  AnswerWith("0");
  std::map<std::string, int> heard;
  const auto keep = [&](const std::string& name, const ugs::Outcome& outcome) {
    const std::scoped_lock lock(mutex);
    if (outcome.code == 0) ++heard[name];
  };
  const auto countOf = [&](const std::string& name) {
    const std::scoped_lock lock(mutex);
    return heard[name];
  };
  const auto usageOf = [](const std::string& id) {
    return [id] {
      return ugs::Usage{.id = id, .cameras = {"c"}, .counts = {{"PX", 3}}};
    };
  };
  ugs::ReporterGroup group(address, PublicKeyPem(), 20ms, keep);
  for (const char* name : {"a", "b", "c"}) group.Join(name, usageOf(name));
  EXPECT_TRUE(Await([&] { return countOf("a") > 3 && countOf("b") > 3 && countOf("c") > 3; }));
  group.Join("a", usageOf("another"));
  group.SignOff("b");
  group.Leave("c");
  const auto rest = [&] {
    const int before = countOf("a");
    EXPECT_TRUE(Await([&] { return countOf("a") > before + 5; }));
    return std::pair(countOf("b"), countOf("c"));
  };
  rest();  // what was in flight has ended
  EXPECT_EQ(rest(), rest());
  const std::size_t reports = AnswerWith("");
  KorvaneControllerServer server(true, 0, ScrambledPrivateKey(), nullptr);
  for (std::size_t i = 0; i < reports; ++i) server.ProcessData(Received(i).second);
  EXPECT_EQ(server.Records().Totals().numPX, 9U);  // of "a", "another" and "c"
}

TEST_F(ClientTest, WhatOneOfAGroupLearnsOfTheServerAllOfThemHear) {
  transport.reset();
  std::map<std::string, ugs::ErrorKind> heard;
  const auto keep = [&](const std::string& name, const ugs::Outcome& outcome) {
    const std::scoped_lock lock(mutex);
    heard[name] = outcome.kind;
  };
  const auto count = [](const char* of) {
    return std::distance(std::filesystem::directory_iterator(of), {});
  };
  const auto before = count("/proc/self/fd");
  ugs::ReporterGroup group(address, PublicKeyPem(), 20ms, keep, 300ms);
  for (int i = 0; i < 100; ++i) group.Join(std::to_string(i), SomeUsage);
  EXPECT_TRUE(Await([&] {
    const std::scoped_lock lock(mutex);
    return heard.size() == 100;
  }));
  EXPECT_LT(count("/proc/self/fd"), before + 30);
  EXPECT_TRUE(std::ranges::all_of(
      heard, [](const auto& each) { return each.second == ugs::ErrorKind::NotConnected; }));
}

TEST(WriteDocumentTest, EscapesStringsAndSaysZeroForWhatIsLeftOut) {
  EXPECT_EQ(
      ugs::WriteDocument(
          {.id = "i\"\n\x01", .cameras = {"a\\", "b"}, .counts = {{"AN", 7}}, .layout = "legacy"}),
      R"({"KorvaneID":"i\"\n\u0001","DockerID":"","CamRtspUrls":["a\\","b"],"InUse":{"MaxCameras":0,"ABD":0,)"
      R"("AN":7,"CR":0,"ClassTier1":0,"ClassTier2":0,"ClassTier3":0,"Perimeter":0,"Dwell":0,"Collision":0,)"
      R"("NeuralPack":0}})");
}

TEST(WriteDocumentTest, WhatTheServerWouldRefuseOrMisreadIsRefusedWithTheFieldsName) {
  const auto refusal = [](const std::function<void(ugs::Usage&)>& spoil) {
    ugs::Usage usage = SomeUsage();
    try {
      spoil(usage);
      return ugs::WriteDocument(usage);
    } catch (const std::invalid_argument& error) {
      const std::string text = error.what();
      return text.substr(0, text.find(" It has"));
    }
  };
  EXPECT_EQ(refusal([](auto& usage) { usage.id = ""; }), "KorvaneID is empty");
  EXPECT_EQ(refusal([](auto& usage) { usage.id = std::string("a\0b", 3); }), "KorvaneID holds a NUL byte");
  EXPECT_EQ(refusal([](auto& usage) { usage.container = "\xc3\x28"; }), "DockerID is not UTF-8");
  EXPECT_EQ(refusal([](auto& usage) { usage.cameras = {""}; }), "CamRtspUrls holds no URL");
  EXPECT_EQ(refusal([](auto& usage) { usage.cameras.push_back("\xff"); }), "CamRtspUrls is not UTF-8");
  EXPECT_EQ(refusal([](auto& usage) { usage.layout = "v7"; }), "there is no layout \"v7\"");
  EXPECT_EQ(refusal([](auto& usage) { usage.SetCount("PX", -1); }),
            "count PX is -1, not from 0 to 4294967295");
  EXPECT_EQ(refusal([](auto& usage) { usage.counts["maxcamera"] = 1; }),
            "layout v6 carries no count \"maxcamera\"; did you mean MaxCameras?");
  EXPECT_THROW(ugs::WriteDocument({.id = "i", .cameras = {"c"}, .counts = {{"PX", 1}}, .layout = "legacy"}),
               std::invalid_argument);
}

TEST(ReporterTest, RefusesAPeriodOutOfItsRange) {
  for (const auto period : {-1ms, 999ms, 118001ms}) {
    EXPECT_THROW(ugs::Reporter("h", PublicKeyPem(), SomeUsage, period), std::invalid_argument);
    EXPECT_THROW(ugs::ReporterGroup("h", PublicKeyPem(), period), std::invalid_argument);
  }
}

TEST(VersionTest, IsTheHeadersInBothLanguages) {
  EXPECT_EQ(ugs::Version(), UGS_CLIENT_VERSION);
  EXPECT_STREQ(ugs_version(), UGS_CLIENT_VERSION);
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

class CApiTest : public TransportTest {
 protected:
  using Usage = std::unique_ptr<ugs_usage, decltype(&ugs_usage_free)>;

  static Usage Parsed(const char* json) { return {ugs_usage_parse(json), ugs_usage_free}; }
  ugs_reporter* Reporting(long period, long timeout = 30000, ugs_listener listener = nullptr) {
    return ugs_reporter_start(address.c_str(), key.c_str(), usage.get(), period, timeout, listener, &heard);
  }

  const std::string address = "127.0.0.1:" + std::to_string(port);
  const std::string key = PublicKeyPem();
  const Usage usage = Parsed(R"({"KorvaneID":"i","CamRtspUrls":["c"]})");
  const std::unique_ptr<ugs_client, decltype(&ugs_close)> client{
      ugs_open(address.c_str(), key.c_str(), 20000), ugs_close};
  std::atomic<int> heard = 0;
};

TEST_F(CApiTest, EveryFailureHasItsTextAndNothingIsSent) {
  ugs_client* none = nullptr;
  const Usage bad(ugs_usage_new("i"), ugs_usage_free);
  const auto failing = [&](const std::function<bool()>& fails, const ugs_client* whose = nullptr) {
    EXPECT_TRUE(fails());
    EXPECT_EQ(ugs_last_error(whose), UGS_BAD_USAGE);
    return std::string(ugs_last_error_text(whose));
  };
  const auto opening = [&](const char* server, const char* pem, long timeout) {
    return failing([&] { return ugs_open(server, pem, timeout) == nullptr; });
  };
  EXPECT_EQ(opening(nullptr, key.c_str(), 1), "server is NULL");
  EXPECT_EQ(opening(":", key.c_str(), 1), "\":\" is not HOST or HOST:PORT");
  EXPECT_EQ(opening("h", key.c_str(), 0), "a time-out of 0 ms is neither positive nor -1");
  EXPECT_EQ(opening("h", nullptr, 1), "key is NULL");
  // What follows from that failure says the same.
  EXPECT_EQ(failing([&] { return ugs_greet(none) == -1; }), "key is NULL");
  EXPECT_EQ(failing([&] { return ugs_usage_add_camera(nullptr, "c") == -1; }), "key is NULL");
  EXPECT_EQ(failing([&] { return ugs_usage_new(nullptr) == nullptr; }), "id is NULL");
  EXPECT_EQ(failing([&] { return Parsed("{}") == nullptr; }), "the document is empty");
  EXPECT_EQ(failing([&] { return ugs_report(client.get(), nullptr) == -1; }, client.get()),
            "the document is empty");
  EXPECT_EQ(failing([&] { return ugs_usage_set_layout(bad.get(), "v7") == -1; }),
            "there is no layout \"v7\"");
  EXPECT_EQ(failing([&] { return ugs_usage_set_count(bad.get(), "PX", -1) == -1; }),
            "count PX is -1, not from 0 to 4294967295");
  EXPECT_EQ(failing([&] { return ugs_report(client.get(), bad.get()) == -1; }, client.get()),
            "count PX is -1, not from 0 to 4294967295");
  EXPECT_EQ(failing([&] { return ugs_send_sealed(client.get(), nullptr, 1) == -1; }, client.get()),
            "payload is NULL");
  EXPECT_EQ(failing([&] { return Reporting(999) == nullptr; }),
            "a period of 999 ms is not from 1000 to 118000");
  EXPECT_EQ(failing([&] { return Reporting(118001) == nullptr; }),
            "a period of 118001 ms is not from 1000 to 118000");
  EXPECT_EQ(failing([&] { return ugs_get_counters(client.get(), nullptr) == -1; }), "counters is NULL");
  ugs_interrupt(nullptr);
  ugs_close(nullptr);
  ugs_reporter_stop(nullptr);
  EXPECT_EQ(AnswerWith("0"), 0U);
  EXPECT_EQ(ugs_report(client.get(), usage.get()), 0) << ugs_last_error_text(client.get());
  EXPECT_EQ(ugs_last_error(client.get()), UGS_OK);
  ugs_interrupt(client.get());
  EXPECT_EQ(ugs_greet(client.get()), -1);
  EXPECT_STREQ(ugs_last_error_text(client.get()), "the call was interrupted");
  ugs_counters counters;
  EXPECT_EQ(ugs_get_counters(client.get(), &counters), 0);
  EXPECT_EQ(counters.counted, 1U);
  EXPECT_NEAR(static_cast<double>(counters.last_counted), static_cast<double>(std::time(nullptr)), 20);
}

TEST_F(CApiTest, AReporterReportsItsNewestUsageAndSignsOff) {
  AnswerWith("0");
  const auto listener = [](void* context, int code, ugs_error error, const char* text) {
    EXPECT_EQ(std::tuple(code, error, std::string(text)), std::tuple(0, UGS_OK, ""));
    ++*static_cast<std::atomic<int>*>(context);
  };
  ugs_reporter* reporter = Reporting(118000, 30000, listener);
  ugs_usage_set_count(usage.get(), "ABD", 4294967295);
  EXPECT_EQ(ugs_reporter_update(reporter, usage.get()), 0);
  EXPECT_TRUE(Await([&] { return heard >= 1; }));
  EXPECT_EQ(ugs_reporter_sign_off(reporter), 0);
  ugs_counters counters;
  EXPECT_EQ(ugs_reporter_get_counters(reporter, &counters), 0);
  EXPECT_EQ(counters.counted, static_cast<unsigned long>(heard));
  ugs_reporter_stop(reporter);
  KorvaneControllerServer server(true, 0, ScrambledPrivateKey(), nullptr);
  const std::size_t last = AnswerWith("") - 1;
  for (const auto& [number, inUse] : {std::pair(last - 1, 4294967295U), {last, 0U}}) {
    server.ProcessData(Received(number).second);
    EXPECT_EQ(server.Records().Totals().numAbandoned, inUse);
  }
}

TEST_F(CApiTest, ASignOffThatIsNotAnsweredSaysSo) {
  ugs_reporter* reporter = Reporting(118000, 400);
  EXPECT_EQ(ugs_reporter_sign_off(reporter), -1);
  EXPECT_EQ(ugs_last_error(nullptr), UGS_NO_ANSWER) << ugs_last_error_text(nullptr);
  ugs_reporter_stop(reporter);
}

}  // namespace
