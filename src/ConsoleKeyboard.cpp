#include "ConsoleKeyboard.h"

#include <poll.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstddef>

namespace {

// Signals that end a process which does nothing about them, and at which the terminal must be given back.
constexpr std::array kFatalSignals{SIGQUIT, SIGILL,  SIGABRT, SIGBUS,  SIGFPE,  SIGSEGV,   SIGSYS,
                                   SIGTRAP, SIGALRM, SIGUSR1, SIGUSR2, SIGXCPU, SIGVTALRM, SIGPROF};

// The handler of a fatal signal needs these, so they are not members. A thread that faults runs it itself.
std::atomic<bool> terminalTaken = false;
static_assert(std::atomic<bool>::is_always_lock_free, "a handler must not wait");
termios savedModes;  // valid while terminalTaken

// A terminal without a foreground group is not our controlling terminal: no job control applies to us.
bool InForeground() {
  const pid_t group = tcgetpgrp(STDIN_FILENO);
  return group == -1 || group == getpgrp();
}

void RestoreModes() {
  if (!terminalTaken) return;
  if (InForeground()) tcsetattr(STDIN_FILENO, TCSANOW, &savedModes);
  terminalTaken = false;
}

extern "C" void RestoreModesAndDie(int signal) {
  RestoreModes();
  std::raise(signal);  // its default action, restored by SA_RESETHAND
}

// Single keys without echo. Ctrl-C and Ctrl-Z keep their meaning; Ctrl-S loses it, since a frozen console
// would freeze whoever writes the next log line.
termios KeyModes(termios modes) {
  modes.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO | IEXTEN);
  modes.c_iflag &= ~static_cast<tcflag_t>(IXON);
  modes.c_cc[VMIN] = 0;
  modes.c_cc[VTIME] = 0;
  return modes;
}

bool HasKeyModes(const termios& modes) {
  const termios keyModes = KeyModes(modes);
  return modes.c_lflag == keyModes.c_lflag && modes.c_iflag == keyModes.c_iflag &&
         modes.c_cc[VMIN] == keyModes.c_cc[VMIN] && modes.c_cc[VTIME] == keyModes.c_cc[VTIME];
}

// Looks at the modes each time: a shell changes them while we are stopped or in the background.
bool TakeTerminal() {
  termios modes;
  if (!InForeground() || tcgetattr(STDIN_FILENO, &modes) != 0) return false;
  if (HasKeyModes(modes)) return true;
  savedModes = modes;
  terminalTaken = true;
  const termios keyModes = KeyModes(modes);
  return tcsetattr(STDIN_FILENO, TCSANOW, &keyModes) == 0;
}

// The length of the key at the front of what a terminal sent in one go. A lone Escape is the Escape key;
// with more behind it, it begins an arrow or function key (ECMA-48: CSI "[", SS3 "O") or is the Alt of the
// next character. Escape twice is an impatient operator, unless the second one begins a sequence.
std::size_t KeyLength(const std::string& typed) {
  if (typed[0] != ConsoleKeyboard::kEscape || typed.size() == 1) return 1;
  if (typed[1] == ConsoleKeyboard::kEscape) {
    const bool altSequence = typed.size() > 2 && (typed[2] == '[' || typed[2] == 'O');
    return altSequence ? 1 + KeyLength(typed.substr(1)) : 1;
  }
  if (typed[1] == 'O') return std::min<std::size_t>(3, typed.size());
  if (typed[1] != '[') return 2;
  std::size_t length = 2;
  while (length < typed.size() && (typed[length] < '@' || typed[length] > '~')) ++length;
  return std::min(length + 1, typed.size());
}

}  // namespace

ConsoleKeyboard::ConsoleKeyboard() : isTerminal_(isatty(STDIN_FILENO) == 1) {
  if (!isTerminal_) return;
  for (const int signal : kFatalSignals) {
    struct sigaction action = {};
    if (sigaction(signal, nullptr, &action) != 0 || action.sa_handler != SIG_DFL) continue;
    action.sa_handler = RestoreModesAndDie;
    action.sa_flags = static_cast<int>(SA_RESETHAND | SA_NODEFER);
    sigaction(signal, &action, nullptr);
  }
}

ConsoleKeyboard::~ConsoleKeyboard() {
  RestoreTerminal();
}

void ConsoleKeyboard::RestoreTerminal() {
  RestoreModes();
}

std::optional<char> ConsoleKeyboard::ReadKey() {
  if (atEnd_ || (isTerminal_ && !TakeTerminal())) return std::nullopt;
  if (pending_.empty()) FillPending();
  if (pending_.empty()) return std::nullopt;
  return TakeKey();
}

void ConsoleKeyboard::FillPending() {
  pollfd input{STDIN_FILENO, POLLIN, 0};
  if (poll(&input, 1, 0) <= 0) return;
  // A key of a terminal may be several bytes. A pipe may have other readers: only what is used is taken.
  std::array<char, 64> bytes;
  const ssize_t count = read(STDIN_FILENO, bytes.data(), isTerminal_ ? bytes.size() : 1);
  if (count > 0) {
    pending_.assign(bytes.data(), static_cast<std::size_t>(count));
  } else if (!isTerminal_) {
    atEnd_ = count == 0 || (errno != EINTR && errno != EAGAIN);
  }
}

char ConsoleKeyboard::TakeKey() {
  const std::size_t length = isTerminal_ ? KeyLength(pending_) : 1;
  const char key = length == 1 ? pending_[0] : kOtherKey;
  pending_.erase(0, length);
  return key;
}
