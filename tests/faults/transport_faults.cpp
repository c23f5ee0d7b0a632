// Drives the transport alone, harder than the server's pacing would let anybody drive it. `transport-faults
// CASE ARGUMENT...` prints one line of figures and exits 0, or 1 if it saw what must not be.

#include <spdlog/spdlog.h>

#include <atomic>
#include <chrono>
#include <deque>
#include <filesystem>
#include <functional>
#include <iostream>
#include <map>
#include <mutex>
#include <shared_mutex>
#include <thread>

#include "KorvaneUGSZMQ.h"
#include "TestSupport.h"

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

double MillisecondsSince(Clock::time_point start) {
  return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
}

// Open descriptors and threads of this process, from proc(5).
std::pair<long, long> Resources() {
  const auto count = [](const char* directory) {
    return std::distance(std::filesystem::directory_iterator(directory), {});
  };
  return {count("/proc/self/fd"), count("/proc/self/task")};
}

// Identities in the order of their requests.
class Requests {
 public:
  void Put(const std::string& identity) {
    const std::scoped_lock lock(mutex_);
    identities_.push_back(identity);
    ++received_;
  }
  std::string Take() {
    const std::scoped_lock lock(mutex_);
    if (identities_.empty()) return "nobody";
    std::string identity = std::move(identities_.front());
    identities_.pop_front();
    return identity;
  }
  std::size_t Received() {
    const std::scoped_lock lock(mutex_);
    return received_;
  }

 private:
  std::mutex mutex_;  // guards both
  std::deque<std::string> identities_;
  std::size_t received_ = 0;
};

// client PORT: asks until it is killed. For the storm it must be a process of its own: within one process the
// ordering that libzmq brings about hides races from ThreadSanitizer.
int Client(std::uint16_t port) {
  for (Peer peer(port);; peer.Receive(20)) peer.Send("request");
}

// storm PORT SECONDS: eight threads reply while the transport is restarted and rebuilt.
int Storm(std::uint16_t port, int seconds) {
  std::thread([] {}).join();  // with the first thread, ThreadSanitizer starts one of its own
  const auto before = Resources();
  Requests requests;
  std::atomic<bool> stop = false;
  std::atomic<bool> rebuilding = false;
  std::atomic<long> replies = 0;
  std::shared_mutex object;  // exclusive while the transport is another one
  auto transport = std::make_unique<KorvaneUGSZMQ>();
  int starts = 0;
  {
    std::vector<std::jthread> repliers;
    for (int i = 0; i < 8; ++i) {
      repliers.emplace_back([&] {
        for (; !stop; ++replies) {
          while (rebuilding) std::this_thread::yield();
          const std::shared_lock lock(object);
          transport->Reply(requests.Take(), "reply");
        }
      });
    }
    for (const auto start = Clock::now(); MillisecondsSince(start) < seconds * 1000; ++starts) {
      if (starts % 2 == 1) {
        transport->SetRequestCallback({});
        rebuilding = true;
        const std::scoped_lock lock(object);
        transport.reset();
        transport = std::make_unique<KorvaneUGSZMQ>();
        rebuilding = false;
      }
      transport->SetPort(port);
      transport->Start();
      transport->SetRequestCallback(
          [&](const std::string& identity, const std::string&) { requests.Put(identity); });
      std::this_thread::sleep_for(milliseconds(starts % 5 * 100));
    }
    stop = true;
  }
  transport.reset();
  const auto after = Resources();
  std::cout << starts << " starts, " << requests.Received() << " requests, " << replies
            << " replies; descriptors " << before.first << " -> " << after.first << ", threads "
            << before.second << " -> " << after.second << "\n";
  return after == before && requests.Received() > 0 ? 0 : 1;
}

// churn COUNT: constructs, starts and destroys, two at a time on each port.
int Churn(int count) {
  constexpr int kThreads = 40;
  const auto before = Resources();
  std::atomic<int> longest = 0;  // milliseconds
  {
    std::vector<std::uint16_t> ports(kThreads / 2);
    std::ranges::generate(ports, FreePort);
    std::vector<std::jthread> threads;
    for (int t = 0; t < kThreads; ++t) {
      threads.emplace_back([&, port = ports[static_cast<std::size_t>(t / 2)]] {
        for (int i = 0; i < count / kThreads; ++i) {
          auto transport = std::make_unique<KorvaneUGSZMQ>();
          transport->SetPort(port);
          transport->Start();
          std::this_thread::sleep_for(milliseconds(i % 4 * 10));
          const auto start = Clock::now();
          transport.reset();
          const int took = static_cast<int>(MillisecondsSince(start));
          for (int seen = longest; seen < took && !longest.compare_exchange_weak(seen, took);) continue;
        }
      });
    }
  }
  const auto after = Resources();
  std::cout << count << " built and destroyed, the slowest in " << longest << " ms; descriptors "
            << before.first << " -> " << after.first << ", threads " << before.second << " -> "
            << after.second << "\n";
  return after == before && longest <= 1300 ? 0 : 1;
}

// deaf PEERS REQUESTS: peers that send and never read, with replies long enough to fill every buffer on the
// way.
int Deaf(int peers, int requests) {
  const std::uint16_t port = FreePort();
  std::atomic<long> received = 0;
  auto transport = std::make_unique<KorvaneUGSZMQ>();
  transport->SetPort(port);
  transport->Start();
  transport->SetRequestCallback([&](const std::string& identity, const std::string& payload) {
    ++received;
    transport->Reply(identity, payload == "probe" ? payload : std::string(2000, 'r'));
  });
  Peer probe(port);
  if (!Await([&] { return probe.Send("probe"), probe.Receive(200) == "probe"; })) return 1;
  std::vector<std::unique_ptr<RawPeer>> deaf(static_cast<std::size_t>(peers));
  for (auto& peer : deaf) (peer = std::make_unique<RawPeer>(port, std::chrono::seconds(5)))->ShakeHands();
  std::jthread sender([&] {
    for (int i = 0; i < requests; ++i) {
      for (const auto& peer : deaf) peer->Write({"\0\7request", 9});
    }
  });
  double slowest = 0;
  const auto start = Clock::now();
  bool answered = true;
  while (answered && received < static_cast<long>(peers) * requests && MillisecondsSince(start) < 60'000) {
    const auto sent = Clock::now();
    probe.Send("probe");
    answered = probe.Receive(5000) == "probe";
    slowest = std::max(slowest, MillisecondsSince(sent));
  }
  sender.join();
  const auto stopping = Clock::now();
  transport->SetRequestCallback({});
  transport.reset();
  const double stopped = MillisecondsSince(stopping);
  std::cout << received << " requests, a probe among them answered within " << slowest
            << " ms, stopped within " << stopped << " ms\n";
  return answered && slowest <= 100 && stopped <= 1500 ? 0 : 1;
}

// identities: the name that the first peer gets, at each of two starts.
int Identities() {
  for (int start = 0; start < 2; ++start) {
    const std::uint16_t port = FreePort();
    Requests requests;
    KorvaneUGSZMQ transport;
    transport.SetPort(port);
    transport.Start();
    transport.SetRequestCallback(
        [&](const std::string& identity, const std::string&) { requests.Put(identity); });
    Peer peer(port);
    if (!Await([&] { return peer.Send("x"), peer.Receive(20), requests.Received() > 0; })) return 1;
    for (const char c : requests.Take()) std::cout << static_cast<int>(static_cast<unsigned char>(c)) << ".";
    std::cout << "\n";
  }
  return 0;
}

// flood PORT COUNT BYTES: sends as fast as the other end takes it.
int Flood(std::uint16_t port, int count, int bytes) {
  RawPeer peer(port, std::chrono::seconds(60));
  std::string message(static_cast<std::size_t>(bytes) + 9, 'x');
  message[0] = 2;  // a message of one long frame: the length in eight bytes, most significant first
  for (int i = 0; i < 8; ++i)
    message[static_cast<std::size_t>(8 - i)] =
        static_cast<char>(static_cast<std::uint64_t>(bytes) >> 8 * i & 0xff);
  peer.ShakeHands();
  for (int i = 0; i < count; ++i) peer.Write(message);
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  const auto number = [&](int i) {
    return i < argc ? std::stoi(argv[i]) : 0;
  };
  const auto port = static_cast<std::uint16_t>(number(2));
  const std::map<std::string, std::function<int()>> cases{
      {"client",
       [&] {
         return Client(port);
       }},
      {"storm",
       [&] {
         return Storm(port, number(3));
       }},
      {"churn",
       [&] {
         return Churn(number(2));
       }},
      {"deaf",
       [&] {
         return Deaf(number(2), number(3));
       }},
      {"identities", Identities},
      {"flood",
       [&] {
         return Flood(port, number(3), number(4));
       }},
  };
  spdlog::set_level(spdlog::level::off);
  const auto chosen = cases.find(argc > 1 ? argv[1] : "");
  return chosen == cases.end() ? 2 : chosen->second();
}
