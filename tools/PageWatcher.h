// Asks the server for its status.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "FileDescriptor.h"
#include "PageView.h"
#include "Status.h"

// Asks once a second, and hands on what it hears. One thread, on which `tell` is called.
class PageWatcher {
 public:
  using Tell = std::function<void(SharedView)>;

  PageWatcher(std::string socket, Tell tell);

  // Returns once `signals` has one.
  void RunUntil(const FileDescriptor& signals);

 private:
  using Clock = std::chrono::steady_clock;
  static constexpr std::chrono::seconds kPeriod{1};
  static constexpr std::chrono::seconds kTimeout{5};

  [[nodiscard]] std::chrono::milliseconds UntilDue() const;
  void Look(bool isReadable);
  void Receive();

  const std::string socket_;
  const Tell tell_;
  StatusMemory memory_;
  std::unique_ptr<StatusConnection> connection_;
  Clock::time_point asked_ = Clock::now() - kPeriod;
  std::int64_t started_ = 0;  // of the server that answered last
  std::int64_t starts_ = 0;
};
