#pragma once

#include <optional>
#include <string>

// Keys from standard input, without waiting and without echo. Main thread only; one per process.
//
// On a terminal it reads only while this process is in the terminal's foreground, and restores the modes it
// found on every way out that a process can act on: destruction, Ctrl-Z, a fatal signal. On a pipe or file
// each byte is a key. At the end of input, or without input, there are no more keys.
class ConsoleKeyboard {
 public:
  static constexpr char kEscape = 27;
  static constexpr char kOtherKey = 0;  // an arrow or function key, or one typed with Alt

  ConsoleKeyboard();
  ~ConsoleKeyboard();
  ConsoleKeyboard(const ConsoleKeyboard&) = delete;
  ConsoleKeyboard& operator=(const ConsoleKeyboard&) = delete;

  // The next key if one is waiting. Takes the terminal whenever this process has come to its foreground.
  std::optional<char> ReadKey();

  // Restores the terminal's modes until the next ReadKey.
  void RestoreTerminal();

 private:
  void FillPending();
  char TakeKey();

  const bool isTerminal_;
  bool atEnd_ = false;
  std::string pending_;  // typed, not yet returned
};
