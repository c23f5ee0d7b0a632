#pragma once

#include <cstdint>
#include <string>

// What `ugs fleet` does: a fleet of instances from one process, in open loop. Report i is due at t0 + i /
// rate whether or not earlier ones were answered, and its latency counts from when it was due.
struct FleetOptions {
  std::string server = "127.0.0.1";
  std::string key;
  std::uint32_t instances = 20;
  double rate = 0;    // reports per second of the whole fleet; or
  double period = 0;  // seconds between two reports of one instance
  double duration = 30;
  std::uint32_t connections = 0;  // 0: one per instance
  std::uint32_t seed = 1;
  std::string layout = "v6";
  bool random = false;   // reports come at random moments (Poisson) in place of even ones
  double patience = 30;  // seconds to wait for answers after the last report
  bool json = false;
  std::string csv;  // file for one line per report
  std::string log;  // the server's active log file, to compare sums with
};

// Returns true if every report was answered 0 and the server's log, if given, shows the fleet's sums. Prints
// the result on standard output. Throws std::runtime_error or std::invalid_argument with a text for the user.
bool RunFleet(const FleetOptions& options);
