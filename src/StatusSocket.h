#pragma once

#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <thread>

#include "FileDescriptor.h"

// Writes a snapshot to whoever connects to a Unix socket, and hangs up (unix(7), SOCK_STREAM). It never
// reads, so nothing that a reader sends is parsed beside the private key. Nor does it wait for one: a reader
// that takes longer than 2 s is dropped, and of more than 16 at a time the oldest.
class StatusSocket {
 public:
  using Text = std::shared_ptr<const std::string>;

  // Serves at `path` until its destruction, which removes the socket. A socket there that nobody serves is
  // replaced. `makeSnapshot` is called on the socket's own thread, at most twice a second. Throws
  // std::system_error if the path cannot be bound or the thread not be started.
  StatusSocket(std::string path, std::function<Text()> makeSnapshot);
  ~StatusSocket();  // at once, but for a snapshot that is being made
  StatusSocket(const StatusSocket&) = delete;
  StatusSocket& operator=(const StatusSocket&) = delete;

 private:
  void Serve();

  const std::string path_;
  const std::function<Text()> makeSnapshot_;
  const FileDescriptor listener_;
  const FileDescriptor stop_;  // eventfd(2): readable once the thread has to end
  std::thread thread_;
};
