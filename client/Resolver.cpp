#include "Resolver.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <poll.h>

#include <array>
#include <exception>
#include <memory>
#include <thread>

#include "BlockedSignals.h"
#include "Wakeup.h"

namespace ugs {
namespace {

struct AddressesDeleter {
  void operator()(addrinfo* list) const { freeaddrinfo(list); }
};

std::string Resolve(const std::string& host, std::string& error) {
  addrinfo hints{};
  hints.ai_family = AF_INET;  // the server listens on IPv4 only
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* list = nullptr;
  if (const int code = getaddrinfo(host.c_str(), nullptr, &hints, &list); code != 0) {
    error = (code == EAI_NONAME ? "no such host " : "host ") + host + ": " + gai_strerror(code);
    return {};
  }
  const std::unique_ptr<addrinfo, AddressesDeleter> owner(list);
  std::array<char, INET_ADDRSTRLEN> text{};
  const auto* address = reinterpret_cast<const sockaddr_in*>(list->ai_addr);
  return inet_ntop(AF_INET, &address->sin_addr, text.data(), text.size());
}

}  // namespace

// Written by the lookup's thread before it raises `done`, read afterwards.
struct Lookup::Shared {
  std::string address;
  std::string error;
  Wakeup done;
};

Lookup::Lookup(const std::string& host) : shared_(std::make_shared<Shared>()) {
  const BlockedSignals block;
  std::thread([shared = shared_, host] {
    try {
      shared->address = Resolve(host, shared->error);
    } catch (const std::exception& error) {
      shared->error = error.what();
    }
    shared->done.Raise();
  }).detach();
}

int Lookup::Descriptor() const {
  return shared_->done.Descriptor();
}

bool Lookup::IsDone() const {
  pollfd state{Descriptor(), POLLIN, 0};
  return poll(&state, 1, 0) == 1;
}

std::string Lookup::Take(std::string& error) const {
  shared_->done.Clear();  // also orders what the thread wrote before what we read
  error = shared_->error;
  return shared_->address;
}

}  // namespace ugs
