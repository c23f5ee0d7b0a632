#pragma once

#include <cstdint>
#include <string>

// What `ugs fleet` does: a fleet of instances from one process. Either `rate` or `period` is given.
struct FleetOptions {
  std::string server = "127.0.0.1";
  std::string key;
  std::uint32_t instances = 20;
  double rate = 0;    // reports per second of the whole fleet
  double period = 0;  // seconds between two reports of one instance
  double duration = 30;
  std::uint32_t connections = 0;  // 0: one per instance
  std::uint32_t seed = 1;
  std::string layout = "v6";
  bool random = false;  // reports come at random moments (Poisson) in place of even ones
  double drain = 30;    // seconds to wait for answers after the last report
  bool json = false;
  std::string csv;  // file for one line per report
  std::string log;  // the server's active log file, to compare sums with
};

// Returns true if every report was answered 0 and the server's log, if given, shows the fleet's sums. Prints
// the result on standard output. Throws std::runtime_error or std::invalid_argument with a text for the user.
bool RunFleet(const FleetOptions& options);
