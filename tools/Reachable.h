#pragma once

#include <chrono>
#include <string>

#include "UgsClient.h"

// Why nobody can be talked to at `server`: its name does not resolve, or nobody accepts a connection. Empty
// if somebody does. A refusal is known at once, while a client of the library would go on trying until its
// time-out, as the server may just be starting. Blocks for up to `timeout`, with a resolver or a host that
// does not answer. Any thread. Throws std::system_error without a thread or descriptor.
std::string WhyUnreachable(const ugs::Address& server, std::chrono::milliseconds timeout);
