// Drives the transport harder than the server's pacing would let anybody drive it, for ThreadSanitizer above
// all. Its peer is another process: within one process the ordering that libzmq brings about hides races.

#include <spdlog/spdlog.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <mutex>
#include <shared_mutex>
#include <thread>
#include <zmq.hpp>

#include "KorvaneUGSZMQ.h"
#include "TestSupport.h"

namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

// Asks until it is killed.
int Client(std::uint16_t port) {
  for (Peer peer(port);; peer.Receive(20)) peer.Send("request");
}

// A port, and a process that asks there until this one ends.
std::uint16_t StartClient() {
  const std::uint16_t port = FreePort();
  if (fork() != 0) return port;
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  std::exit(execl("/proc/self/exe", "client", std::to_string(port).c_str(), nullptr));
}

// How many descriptors and threads this process has, from proc(5).
std::ptrdiff_t Resources() {
  using Directory = std::filesystem::directory_iterator;
  return std::distance(Directory("/proc/self/fd"), {}) + std::distance(Directory("/proc/self/task"), {});
}

// Eight threads reply while the transport is restarted and, every other time, replaced.
int Storm(std::chrono::seconds duration) {
  const std::uint16_t port = StartClient();
  std::thread([] {}).join();  // with the first thread, ThreadSanitizer starts one of its own
  const auto before = Resources();
  std::mutex mutex;  // guards the next
  std::string asker = "nobody";
  std::atomic<bool> stop = false;
  std::atomic<bool> rebuilding = false;
  std::shared_mutex object;  // exclusive while the transport is replaced
  auto transport = std::make_unique<KorvaneUGSZMQ>();
  const auto lastAsker = [&] {
    const std::scoped_lock lock(mutex);
    return asker;
  };
  const auto reply = [&] {
    while (!stop) {
      while (rebuilding) std::this_thread::yield();
      const std::shared_lock lock(object);
      transport->Reply(lastAsker(), "reply");
    }
  };
  {
    std::vector<std::jthread> repliers;
    for (int i = 0; i < 8; ++i) repliers.emplace_back(reply);
    const auto end = steady_clock::now() + duration;
    for (int starts = 0; steady_clock::now() < end; ++starts) {
      if (starts % 2 == 1) {
        transport->SetRequestCallback({});
        rebuilding = true;
        const std::scoped_lock lock(object);
        transport = std::make_unique<KorvaneUGSZMQ>();
        rebuilding = false;
      }
      transport->SetPort(port);
      transport->Start();
      transport->SetRequestCallback([&](const std::string& identity, const std::string&) {
        const std::scoped_lock lock(mutex);
        asker = identity;
      });
      std::this_thread::sleep_for(milliseconds(starts % 5 * 100));
    }
    stop = true;
  }
  transport.reset();
  return Resources() == before && asker != "nobody" ? 0 : 1;
}

// Commits the fault that the transport guards against: a callback assigned, unguarded, while a worker may be
// in it. ThreadSanitizer must report it, or its silence about the storm would prove nothing.
int Canary() {
  const std::uint16_t port = StartClient();
  std::function<void(const std::string&)> callback;
  std::atomic<bool> running = true;
  std::jthread worker([&] {
    zmq::context_t context;
    zmq::socket_t router(context, zmq::socket_type::router);
    router.bind("tcp://127.0.0.1:" + std::to_string(port));
    router.set(zmq::sockopt::rcvtimeo, 100);
    for (zmq::message_t frame; running;) {
      if (router.recv(frame) && callback) callback(frame.to_string());
    }
  });
  for (std::size_t i = 0; i < 100; ++i) {
    callback = [i](const std::string& text) {
      static_cast<void>(text.size() + i);
    };
    std::this_thread::sleep_for(milliseconds(20));
  }
  running = false;
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  const std::string task = argv[0];
  spdlog::set_level(spdlog::level::off);
  if (task == "client") return Client(static_cast<std::uint16_t>(std::stoi(argv[1])));
  return argc > 1 ? Storm(std::chrono::seconds(std::stoi(argv[1]))) : Canary();
}
