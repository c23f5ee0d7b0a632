#include "PageWatcher.h"

#include <poll.h>

#include <algorithm>
#include <array>
#include <exception>
#include <optional>
#include <utility>

PageWatcher::PageWatcher(std::string socket, Tell tell)
    : socket_(std::move(socket)), tell_(std::move(tell)) {}

void PageWatcher::RunUntil(const FileDescriptor& signals) {
  while (true) {
    std::array<pollfd, 2> items{
        {{signals.Number(), POLLIN, 0}, {connection_ ? connection_->Descriptor() : -1, POLLIN, 0}}};
    poll(items.data(), items.size(), static_cast<int>(UntilDue().count()));
    if (items[0].revents != 0) return;
    try {
      Look(items[1].revents != 0);
    } catch (const std::exception& error) {
      connection_.reset();
      tell_(std::make_shared<const View>(View{std::nullopt, error.what(), starts_}));
    }
  }
}

// Until the next question, or until the wait for this answer is given up.
std::chrono::milliseconds PageWatcher::UntilDue() const {
  const auto due = asked_ + (connection_ ? kTimeout : kPeriod);
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(due - Clock::now());
  return std::max(left, std::chrono::milliseconds(0));
}

void PageWatcher::Look(bool isReadable) {
  if (isReadable) Receive();
  if (UntilDue().count() > 0) return;
  if (connection_) {
    connection_.reset();
    throw NoStatus("the server at " + socket_ + " does not tell its status");
  }
  asked_ = Clock::now();
  connection_ = std::make_unique<StatusConnection>(socket_, memory_);
}

void PageWatcher::Receive() {
  std::optional<StatusSnapshot> snapshot = connection_->Receive();
  if (!snapshot) return;
  connection_.reset();
  if (snapshot->server.started != started_) ++starts_;
  started_ = snapshot->server.started;
  tell_(std::make_shared<const View>(View{std::move(snapshot), {}, starts_}));
}
