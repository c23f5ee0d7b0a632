#include "TopScreen.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <string_view>
#include <system_error>

#include "Shown.h"

namespace {

// console_codes(4); 1049 is xterm's alternate screen, 25 the cursor.
constexpr std::string_view kEnter = "\x1b[?1049h\x1b[?25l";
constexpr std::string_view kLeave = "\x1b[?25h\x1b[?1049l";
constexpr std::string_view kClearToEnd = "\x1b[J";

constexpr int kTimeout = 500;  // ms for which a terminal that takes nothing is waited for

// The terminal once more, for writes that do not wait: with output stopped (Ctrl-S), or with nobody behind
// it, a write that waits would wait through every signal. O_NONBLOCK on standard output itself would be the
// shell's, too.
int OpenTerminal() {
  const char* const name = ttyname(STDOUT_FILENO);
  return open(name == nullptr ? "/dev/tty" : name, O_WRONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
}

// The line is cleared first: at the last column, clearing what follows would take that character along.
std::string Placed(std::size_t row, const TopScreen::Line& line, std::size_t columns) {
  const std::string start = "\x1b[" + std::to_string(row) + ";1H\x1b[2K";
  if (!line.isMarked) return start + Shown(line.text, columns);
  return start + "\x1b[7m" + Padded(line.text, columns) + "\x1b[0m";
}

}  // namespace

TopScreen::TopScreen() : terminal_(OpenTerminal(), "the terminal") {
  if (tcgetattr(STDIN_FILENO, &before_) == -1) {
    throw std::system_error(errno, std::generic_category(), "the terminal");
  }
  termios keys = before_;
  keys.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO);
  keys.c_cc[VMIN] = 1;
  keys.c_cc[VTIME] = 0;
  // In the background this stops the process until it is in the foreground again.
  while (tcsetattr(STDIN_FILENO, TCSANOW, &keys) == -1 && errno == EINTR) continue;
  Write(kEnter);
}

TopScreen::~TopScreen() {
  Write(kLeave);
  while (tcsetattr(STDIN_FILENO, TCSANOW, &before_) == -1 && errno == EINTR) continue;
}

// What the terminal does not take in time is lost, and drawn anew the next time.
void TopScreen::Write(std::string_view text) const {
  pollfd room{terminal_.Number(), POLLOUT, 0};
  while (!text.empty()) {
    const ssize_t written = write(terminal_.Number(), text.data(), text.size());
    if (written > 0) text.remove_prefix(static_cast<std::size_t>(written));
    if (written == -1 && errno != EINTR && errno != EAGAIN)
      return;  // a terminal that is gone also ends the input
    if (written == -1 && errno == EAGAIN && poll(&room, 1, kTimeout) == 0) return;
  }
}

TopScreen::Size TopScreen::CurrentSize() {
  winsize size{};
  if (ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == -1 || size.ws_row == 0 || size.ws_col == 0) return {24, 80};
  return {size.ws_row, size.ws_col};
}

void TopScreen::Draw(const std::vector<Line>& lines) const {
  const Size size = CurrentSize();
  std::string text;
  const std::size_t rows = std::min(lines.size(), size.rows);
  for (std::size_t row = 0; row < rows; ++row) text += Placed(row + 1, lines[row], size.columns);
  if (rows < size.rows) text += "\x1b[" + std::to_string(rows + 1) + ";1H" + std::string(kClearToEnd);
  Write(text);
}
