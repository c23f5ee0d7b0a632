#pragma once

#include <cstdint>
#include <random>

// When the reports of a fleet are due, in seconds since the start: evenly, or as a Poisson process whose mean
// rate is the same. One thread at a time.
class FleetSchedule {
 public:
  FleetSchedule(double reportsPerSecond, bool random, std::uint32_t seed)
      : rate_(reportsPerSecond), random_(random), generator_(seed), gap_(reportsPerSecond) {}

  // The first report is due at 0.
  [[nodiscard]] double Next() {
    const double due = due_;
    ++count_;
    due_ = random_ ? due_ + gap_(generator_)
                   : static_cast<double>(count_) / rate_;  // even: errors do not add up
    return due;
  }

 private:
  const double rate_;
  const bool random_;
  std::mt19937_64 generator_;
  std::exponential_distribution<double> gap_;
  std::uint64_t count_ = 0;
  double due_ = 0;
};
