#pragma once

#include <csignal>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "Fleet.h"
#include "FleetConnections.h"
#include "FleetRecord.h"
#include "Sealer.h"
#include "UgsClient.h"
#include "UsageCounts.h"

// Simulates a fleet in open loop: a report is sent when it is due, whether or not earlier ones were answered,
// and its latency counts from then. One thread; runs once.
class FleetRun {
 public:
  // Makes the connections. Throws as FleetConnections and ugs::Sealer do.
  FleetRun(const FleetOptions& options, double reportsPerSecond);

  // Takes the duration of the run and up to the drain time, or ends with what there is at Ctrl-C. Shows
  // progress on a terminal. Throws std::runtime_error if the server answers what no server should.
  [[nodiscard]] FleetRecord Run();

 private:
  using Clock = FleetConnections::Clock;

  // Its identity never changes, its counts do with every report.
  class Instance {
   public:
    Instance(const FleetOptions& options, std::uint32_t number);
    const ugs::Usage& NextUsage();
    void Answered(int code);
    void AddTo(ugs::UsageCounts& sum) const;

   private:
    using Counts = std::map<std::string, std::uint32_t>;

    std::mt19937_64 random_;
    ugs::Usage usage_;
    std::vector<std::string> keys_;
    std::deque<Counts> inFlight_;
    Counts counted_;
  };

  // SIGINT is held back from the first report on, and looked for between two steps. Before, there is nothing
  // to print, and it ends the process.
  class CtrlC {
   public:
    CtrlC();
    [[nodiscard]] bool Pressed();

   private:
    sigset_t interrupt_{};
    bool pressed_ = false;
  };

  void Send(double due);
  template <typename Condition>
  void TakeAnswersUntil(Clock::time_point deadline, Condition done);
  void Take(const FleetConnections::Answer& answer);
  void ShowProgress(bool last);

  const FleetOptions options_;
  const double rate_;
  const std::uint32_t connectionCount_;
  const ugs::Sealer sealer_;
  FleetConnections connections_;
  CtrlC ctrlC_;
  std::vector<Instance> instances_;
  std::vector<std::deque<std::size_t>> inFlight_;  // by connection: indices of reports, oldest first
  std::size_t answered_ = 0;
  FleetRecord record_;
  Clock::time_point start_;
  Clock::time_point nextProgress_;
};
