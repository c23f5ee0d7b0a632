// An instance that reports once by hand, and then by itself until it has been counted three times.
// With CMake: this directory's CMakeLists.txt. Without:
//   g++ -std=c++20 example.cpp $(pkg-config --cflags --libs ugs-client)
// Usage: example SERVER PUBLIC_KEY_FILE

#include <ugs/UgsClient.h>

#include <chrono>
#include <cstdio>
#include <exception>
#include <latch>
#include <optional>

int main(int argc, char** argv) try {
  if (argc != 3) return 2;
  ugs::Usage usage{.id = "example", .container = "none", .cameras = {"rtsp://127.0.0.1/1"}};
  usage.counts["MaxCameras"] = 1;
  {
    ugs::Client client(argv[1], argv[2]);
    const std::optional<int> code = client.Report(usage);
    if (code != 0) {
      std::puts(code ? "refused" : "no answer");
      return 1;
    }
  }
  std::latch counted(3);
  const ugs::Reporter reporter(
      argv[1], argv[2], [&] { return usage; }, std::chrono::milliseconds(200),
      [&](std::optional<int> code) {
        if (code == 0 && !counted.try_wait()) counted.count_down();
      });
  counted.wait();
  std::puts("counted");
} catch (const std::exception& error) {
  std::puts(error.what());
  return 2;
}
