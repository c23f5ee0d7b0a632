// Writes what the server writes about reports, at a steady pace and with small log files:
//   paced-log FILE REPORTS PER-SECOND FILE-SIZE

#include <chrono>
#include <memory>
#include <string>
#include <thread>

#include "LogFile.h"
#include "Logging.h"
#include "UsageRecords.h"

int main(int argc, char** argv) {
  if (argc != 5) return 2;
  const int reports = std::stoi(argv[2]);
  const std::chrono::microseconds pause(1'000'000 / std::stoi(argv[3]));
  auto file = std::make_shared<LogFile>(argv[1], std::stoul(argv[4]), 5, "[%c][%L] %v");
  spdlog::set_default_logger(std::make_shared<spdlog::logger>("paced", file));
  spdlog::flush_every(std::chrono::seconds(1));
  UsageRecords records;
  for (int i = 0; i < reports; ++i) {
    UGSRequest::RequestData request{.camRtspUrls = {"rtsp://camera"}, .korvaneId = std::to_string(i % 50)};
    request.counts.maxCameras = 1;
    records.ApplyRequest(request);
    std::this_thread::sleep_for(pause);
  }
  spdlog::shutdown();
}
