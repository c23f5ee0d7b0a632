// `ugs page`: the server's status in a browser, and as metrics, over HTTP. It needs no key and reads nothing
// but the status socket.
#pragma once

#include <cstdint>
#include <string>

struct PageOptions {
  std::string socket;
  std::string address = "127.0.0.1";  // a numeric one of this machine
  std::uint16_t port = 9305;
  std::string history;  // the file to keep it in; none if empty
};

// Serves until SIGINT or SIGTERM comes, with or without a server to show; says on standard output where.
// Throws std::invalid_argument if `address` is none, std::system_error if nothing can listen there.
void ServePage(const PageOptions& options);
