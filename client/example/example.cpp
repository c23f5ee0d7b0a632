// An instance that reports once by hand, and then by itself until it has been counted twice.
// With CMake: this directory's CMakeLists.txt. Without:
//   g++ -std=c++17 example.cpp $(pkg-config --cflags --libs ugs-client)
// Usage: example SERVER PUBLIC_KEY_FILE

#include <ugs/UgsClient.h>

#include <chrono>
#include <cstdio>
#include <exception>
#include <future>

int main(int argc, char** argv) try {
  if (argc != 3) return 2;
  ugs::Usage usage;
  usage.id = "example";
  usage.container = "none";
  usage.cameras = {"rtsp://127.0.0.1/1"};
  usage.SetCount("MaxCameras", 1);
  {
    ugs::Client client(argv[1], argv[2]);
    if (client.Report(usage) != 0) {
      std::puts(client.LastError().text.c_str());
      return 1;
    }
  }
  int counted = 0;
  std::promise<void> done;
  const ugs::Reporter reporter(
      argv[1], argv[2], [&] { return usage; }, std::chrono::seconds(1),
      [&](const ugs::Outcome& outcome) {
        if (outcome.code == 0 && ++counted == 2) done.set_value();
      });
  done.get_future().wait();
  std::puts("counted");
} catch (const std::exception& error) {
  std::puts(error.what());
  return 2;
}
