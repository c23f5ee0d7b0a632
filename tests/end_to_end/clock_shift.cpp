// Preloaded into the server under test: moves the wall clock by the number of seconds that stands in the file
// $UGS_CLOCK_SHIFT, and leaves the monotonic clock alone.

#include <fcntl.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cstdlib>
#include <ctime>

namespace {

time_t Shift() {
  static std::atomic<time_t> last{0};
  const char* file = std::getenv("UGS_CLOCK_SHIFT");
  const int descriptor = file == nullptr ? -1 : open(file, O_RDONLY | O_CLOEXEC);
  if (descriptor == -1) return last;  // no descriptor may be free; that must not look like a jump
  std::array<char, 32> text{};
  const ssize_t length = read(descriptor, text.data(), text.size() - 1);
  close(descriptor);
  if (length > 0) last = std::strtol(text.data(), nullptr, 10);
  return last;
}

}  // namespace

extern "C" int clock_gettime(clockid_t clock, timespec* now) noexcept {
  const long result = syscall(SYS_clock_gettime, clock, now);
  if (result == 0 && clock == CLOCK_REALTIME) now->tv_sec += Shift();
  return static_cast<int>(result);
}

extern "C" time_t time(time_t* result) noexcept {
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  if (result != nullptr) *result = now.tv_sec;
  return now.tv_sec;
}
