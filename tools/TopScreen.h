#pragma once

#include <termios.h>

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "FileDescriptor.h"

// The terminal's alternate screen, with keys that come one by one and are not shown. The terminal is as it
// was before when this is destroyed. One at a time, on one thread. Throws std::system_error if standard input
// is no terminal.
class TopScreen {
 public:
  struct Size {
    std::size_t rows;
    std::size_t columns;
  };
  struct Line {
    std::string text;
    bool isMarked = false;
  };

  TopScreen();
  ~TopScreen();
  TopScreen(const TopScreen&) = delete;
  TopScreen& operator=(const TopScreen&) = delete;

  [[nodiscard]] static Size CurrentSize();

  // What does not fit is cut off.
  void Draw(const std::vector<Line>& lines) const;

 private:
  void Write(std::string_view text) const;

  const FileDescriptor terminal_;
  termios before_{};
};
