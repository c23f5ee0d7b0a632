// The server with a registry that is full from the start: `prefilled-server RECORDS [SOCKET]` serves on the
// usual port, from its first status report on, until SIGTERM, and shows its status on SOCKET. A fleet alone
// cannot fill one to more than a tick's rate times 120 s.

#include <csignal>
#include <cstdlib>
#include <memory>
#include <string>

#include "FleetStatus.h"
#include "KorvaneControllerServer.h"
#include "KorvaneUGSZMQ.h"
#include "Logging.h"
#include "PrivateKey.h"
#include "StatusSocket.h"
#include "StatusText.h"
#include "UGSDefs.h"

int main(int argc, char** argv) {
  sigset_t ending;
  sigemptyset(&ending);
  sigaddset(&ending, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &ending, nullptr);
  SetUpLogging("KorvaneUGS.log", argc, argv, "logs");
  const long count = argc > 1 ? std::strtol(argv[1], nullptr, 10) : 0;
  const auto status = argc > 2 ? std::make_unique<FleetStatus>() : nullptr;
  KorvaneControllerServer server(true, UGSDefs::kPort, ScrambledPrivateKey(),
                                 std::make_unique<KorvaneUGSZMQ>(), status.get());
  spdlog::set_level(spdlog::level::warn);
  for (long i = 0; i < count; ++i) {
    UGSRequest::RequestData request{.korvaneId = "prefilled-" + std::to_string(i),
                                    .dockerId = std::string(64, 'c')};
    for (int camera = 1; camera <= 4; ++camera) {
      request.camRtspUrls.push_back("rtsp://10.1." + std::to_string(i) + ".1:554/stream" +
                                    std::to_string(camera));
    }
    server.Records().ApplyRequest(request);
  }
  spdlog::set_level(spdlog::level::info);
  std::unique_ptr<StatusSocket> statusSocket;
  if (status != nullptr) statusSocket = std::make_unique<StatusSocket>(argv[2], SnapshotsOf(*status));
  server.Start();
  server.Records().PrintStatus();
  int signal = 0;
  sigwait(&ending, &signal);
}
