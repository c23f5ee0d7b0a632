#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "FleetStatus.h"

class KorvaneControllerServer;

// Tells the service manager that started this process how it is, if one did (sd_notify(3)): READY=1 once the
// port is open, WATCHDOG=1 while the intake ticks, and a line for `systemctl status`. Main thread only.
class ServiceManager {
 public:
  ServiceManager();

  [[nodiscard]] bool IsThere() const { return !path_.empty(); }

  // Once a second. Without a `summary` there is no such line.
  void Tell(const KorvaneControllerServer& server, const std::optional<FleetStatus::Summary>& summary);

 private:
  void Send(std::string_view message) const;

  std::string path_;  // of the manager's datagram socket; empty if there is none
  bool isReady_ = false;
  std::uint64_t ticks_ = 0;  // of the intake, at the last call
};
