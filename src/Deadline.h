#pragma once

#include <chrono>

// The steady-clock instant `period` from now, or the clock's last instant where that would overflow.
inline std::chrono::steady_clock::time_point DeadlineAfter(std::chrono::steady_clock::duration period) {
  using TimePoint = std::chrono::steady_clock::time_point;
  const TimePoint now = std::chrono::steady_clock::now();
  return now > TimePoint::max() - period ? TimePoint::max() : now + period;
}
