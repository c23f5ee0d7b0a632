#include "Console.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <climits>
#include <utility>

namespace {

constexpr std::chrono::milliseconds kTimeout(50);

// True if a write may do something, if only fail; at once if `deadline` is past.
bool AwaitRoom(std::chrono::steady_clock::time_point deadline) {
  using std::chrono::milliseconds;
  const auto left = std::chrono::ceil<milliseconds>(deadline - std::chrono::steady_clock::now());
  pollfd output{STDOUT_FILENO, POLLOUT, 0};
  return poll(&output, 1, static_cast<int>(std::max(left, milliseconds(0)).count())) > 0;
}

// A pipe with room for anything has room for PIPE_BUF bytes (pipe(7)), so this never waits.
long WriteToPipe(std::string_view text) {
  if (AwaitRoom({})) return write(STDOUT_FILENO, text.data(), std::min<std::size_t>(text.size(), PIPE_BUF));
  errno = EAGAIN;
  return -1;
}

}  // namespace

Console& Console::Instance() {
  static Console console;
  return console;
}

Console::~Console() {
  if (terminal_ != -1) close(terminal_);
}

void Console::Write(std::string_view text) {
  const ugs::MutexLock lock(mutex_);
  const bool stuck = lost_ > 0 || !rest_.empty();
  const auto deadline = std::chrono::steady_clock::now() + kTimeout;
  if (stuck ? CatchUp() && Put(text, {}) : Put(text, deadline)) return;
  ++lost_;
}

// Says what is outstanding, without waiting. True if that is all said.
bool Console::CatchUp() {
  const std::string rest = std::exchange(rest_, {});
  if (!Put(rest, {})) rest_ = rest;
  if (!rest_.empty()) return false;
  if (lost_ == 0) return true;
  if (!Put(fmt::format("[warning] The console was not read: {} lines are missing here\n", lost_), {}))
    return false;
  lost_ = 0;
  return rest_.empty();
}

// False if the console took nothing of `text`. The rest of what it took in part is kept for later.
bool Console::Put(std::string_view text, TimePoint deadline) {
  const std::size_t whole = text.size();
  while (!text.empty()) {
    const long written = WriteSome(text);
    if (written > 0) {
      text.remove_prefix(static_cast<std::size_t>(written));
    } else if (written == 0 || errno != EAGAIN) {
      return true;  // nobody will ever read it
    } else if (std::chrono::steady_clock::now() >= deadline || !AwaitRoom(deadline)) {
      if (text.size() == whole) return false;
      rest_ = text;
      return true;
    }
  }
  return true;
}

// As write(2), but with EAGAIN instead of waiting. O_NONBLOCK would do the same, for every process that
// shares the console: the flag belongs to the open file, not to our descriptor.
long Console::WriteSome(std::string_view text) {
  struct stat status = {};
  fstat(STDOUT_FILENO, &status);
  if (S_ISFIFO(status.st_mode)) return WriteToPipe(text);
  if (S_ISSOCK(status.st_mode)) {
    return send(STDOUT_FILENO, text.data(), text.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
  }
  if (S_ISCHR(status.st_mode) && isatty(STDOUT_FILENO) == 1) return WriteToTerminal(text);
  return write(STDOUT_FILENO, text.data(), text.size());  // a file: it always takes what it can
}

// A terminal says that it has room even if that is less than a line, so it is opened anew, for us alone.
// Where that is forbidden (a terminal of another user's), a line may wait.
long Console::WriteToTerminal(std::string_view text) {
  if (terminal_ == -1) terminal_ = open("/proc/self/fd/1", O_WRONLY | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
  const int output = terminal_ != -1 ? terminal_ : STDOUT_FILENO;
  return write(output, text.data(), text.size());
}
