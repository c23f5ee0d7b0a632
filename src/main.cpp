// KorvaneUGS: keeps the newest report of every video-analytics instance of a site and the fleet's totals.
// This file is the order of start-up, the main loop and the shutdown; docs/architecture.md is the map.

#include <fcntl.h>
#include <malloc.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <optional>
#include <ratio>
#include <string>
#include <string_view>
#include <system_error>

#include "ConsoleKeyboard.h"
#include "Deadline.h"
#include "FleetStatus.h"
#include "KorvaneControllerServer.h"
#include "KorvaneUGSZMQ.h"
#include "Logging.h"
#include "PrivateKey.h"
#include "ProcessSignals.h"
#include "ServiceManager.h"
#include "StatusSocket.h"
#include "StatusText.h"
#include "UGSDefs.h"

namespace {

// The system time in 100-nanosecond ticks.
using Ticks = std::chrono::duration<std::int64_t, std::ratio<1, 10'000'000>>;

#ifdef NDEBUG
constexpr bool kIsRelease = true;
#else
constexpr bool kIsRelease = false;
#endif
constexpr bool kEncrypted = true;
constexpr std::chrono::seconds kLogFlushPeriod(5);
constexpr std::chrono::seconds kLoopPeriod(1);
constexpr Ticks kRefreshPeriod = std::chrono::minutes(30);

Ticks SystemTicks() {
  return std::chrono::duration_cast<Ticks>(std::chrono::system_clock::now().time_since_epoch());
}

// A closed standard descriptor would be reused by the log file or a socket, and written to as the console.
void OpenMissingStdio() {
  for (int descriptor = STDIN_FILENO; descriptor <= STDERR_FILENO; ++descriptor) {
    if (fcntl(descriptor, F_GETFD) == -1) open("/dev/null", O_RDWR);
  }
}

// Every peer takes a descriptor. At the soft limit the accept of a new peer fails and is tried again without
// end, which takes a whole core.
void RaiseOpenFileLimit(const FunctionLog& log) {
  rlimit limit{};
  if (getrlimit(RLIMIT_NOFILE, &limit) == 0) {
    limit.rlim_cur = limit.rlim_max;
    if (setrlimit(RLIMIT_NOFILE, &limit) == 0) return;
  }
  log.Warn("The limit of open files could not be raised: {}", std::strerror(errno));
}

// Left to itself, the C library raises this threshold to the largest block it has freed, and keeps all
// smaller ones: a few peers with 20 MB names would leave 100 MB behind.
void ReturnLargeBlocksWhenFreed() {
  mallopt(M_MMAP_THRESHOLD, 128 * 1024);
}

void FlushLogPeriodically() {
  const ScopedSignalBlock block;
  spdlog::flush_every(kLogFlushPeriod);
}

// A core file or a debugger would show the private key and the cameras' passwords.
void HideMemory() {
  if (!kIsRelease) return;
  const rlimit none{};
  setrlimit(RLIMIT_CORE, &none);
  prctl(PR_SET_DUMPABLE, 0);
}

RequestFrames FramesFromEnvironment(const FunctionLog& log) {
  const char* value = std::getenv("UGS_FRAMES");
  if (value == nullptr) return RequestFrames::Pairs;
  if (std::string_view(value) == "strict") return RequestFrames::Strict;
  log.Warn("UGS_FRAMES is set, but not to \"strict\": frames are taken in pairs");
  return RequestFrames::Pairs;
}

std::unique_ptr<KorvaneControllerServer> MakeServer(RequestFrames frames, FleetStatus* status) {
  return std::make_unique<KorvaneControllerServer>(kEncrypted, UGSDefs::kPort, ScrambledPrivateKey(),
                                                   std::make_unique<KorvaneUGSZMQ>(frames), status);
}

// Shows `status` to whoever connects. Null if that cannot be done; the server serves all the same.
std::unique_ptr<StatusSocket> ShowStatus(FleetStatus& status, const char* path, const FunctionLog& log) {
  try {
    return std::make_unique<StatusSocket>(path, SnapshotsOf(status));
  } catch (const std::system_error& error) {
    log.Warn("The status cannot be shown: {}", error.what());
    return nullptr;
  }
}

void StartWithSignalsBlocked(KorvaneControllerServer& server) {
  const ScopedSignalBlock block;
  server.Start();
}

bool IsQuitKey(std::optional<char> key) {
  return key == ConsoleKeyboard::kEscape || key == 'Q' || key == 'q';
}

// Sleeps to the end of the tick. True if a signal asked the server to end.
bool WaitForQuitSignal(const ProcessSignals& signals, ConsoleKeyboard& keyboard) {
  const auto deadline = DeadlineAfter(kLoopPeriod);
  while (const int signal = signals.WaitUntil(deadline)) {
    if (signal != SIGTSTP) return true;
    keyboard.RestoreTerminal();
    ProcessSignals::StopProcess();
  }
  return false;
}

}  // namespace

int main(int argc, char** argv) {
  static constexpr FunctionLog log("main");
  HideMemory();
  ReturnLargeBlocksWhenFreed();
  OpenMissingStdio();
  const ProcessSignals signals;
  const std::string logDirectory = "logs";
  const std::string logName = "KorvaneUGS.log";
  SetUpLogging(logName, argc, argv, logDirectory);
  FlushLogPeriodically();
  log.Warn("UGS version {}", UGSDefs::kVersion);
  RaiseOpenFileLimit(log);

  const RequestFrames frames = FramesFromEnvironment(log);
  const char* const statusPath = std::getenv("UGS_STATUS");
  // An empty one switches it off: to bind(2) it would be an abstract socket, which everybody may connect to.
  const bool hasStatus = statusPath != nullptr && *statusPath != '\0';
  const auto status = hasStatus ? std::make_unique<FleetStatus>() : nullptr;
  const auto statusSocket = status != nullptr ? ShowStatus(*status, statusPath, log) : nullptr;
  auto server = MakeServer(frames, status.get());
  StartWithSignalsBlocked(*server);
  PrintToConsole("\n");
  PrintToConsole("Press a key to exit...\n");
  ConsoleKeyboard keyboard;
  bool quit = false;
  Ticks lastBuild = SystemTicks();
  log.Info("Total cameras in use : {}", server->Records().TotalCameras());
  server->Records().PrintStatus();

  ServiceManager manager;
  while (!quit) {
    quit = IsQuitKey(keyboard.ReadKey());
    if (SystemTicks() - lastBuild >= kRefreshPeriod) {
      log.Info("Refreshing UGS server...");
      auto fresh = MakeServer(frames, status.get());
      server.reset();  // the port must be free before the new server binds it
      server = std::move(fresh);
      if (status != nullptr) status->Rebuilt();
      StartWithSignalsBlocked(*server);
      lastBuild = SystemTicks();
    }
    if (manager.IsThere()) {
      manager.Tell(*server, status != nullptr ? std::optional(status->TakeSummary()) : std::nullopt);
    }
    quit = quit || WaitForQuitSignal(signals, keyboard);
  }
  return 0;
}
