// Commits the fault that the transport guards against: a callback assigned, unguarded, while a worker may be
// in it. ThreadSanitizer must report it, or its silence about the transport would prove nothing. The peer is
// another process, as it is in the tests that rely on the silence.

#include <sys/prctl.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <functional>
#include <thread>
#include <zmq.hpp>

#include "TestSupport.h"

int main(int argc, char** argv) {
  if (argc != 2) return 2;  // the program whose `client` case is the peer
  const std::uint16_t port = FreePort();
  const std::string portText = std::to_string(port);
  if (fork() == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    return execl(argv[1], argv[1], "client", portText.c_str(), nullptr);
  }

  std::function<void(const std::string&)> callback;
  std::atomic<bool> running = true;
  std::jthread worker([&] {
    zmq::context_t context;
    zmq::socket_t router(context, zmq::socket_type::router);
    router.bind("tcp://127.0.0.1:" + portText);
    router.set(zmq::sockopt::rcvtimeo, 100);
    for (zmq::message_t frame; running;) {
      if (router.recv(frame) && callback) callback(frame.to_string());
    }
  });
  for (int i = 0; i < 100; ++i) {
    callback = [i](const std::string& text) {
      static_cast<void>(text.size() + static_cast<std::size_t>(i));
    };
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  running = false;
}
