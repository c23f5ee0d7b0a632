#include "StatusSocket.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <list>
#include <memory>
#include <system_error>
#include <utility>
#include <vector>

#include "Logging.h"
#include "ProcessSignals.h"

namespace {

using Clock = std::chrono::steady_clock;
using Text = StatusSocket::Text;

constexpr std::size_t kReaders = 16;
constexpr std::chrono::seconds kTimeout(2);
constexpr std::chrono::milliseconds kSnapshotAge(500);  // so that many readers cost little more than one
constexpr std::chrono::seconds kPauseAfterFailure(1);

class Reader {
 public:
  Reader(int number, Text text) : socket_(number, "accept"), rest_(std::move(text)) {}

  [[nodiscard]] int Number() const { return socket_.Number(); }
  [[nodiscard]] Clock::time_point Deadline() const { return deadline_; }

  // Writes what fits. False once there is nothing more to do for this reader.
  bool Write() {
    const ssize_t size =
        send(Number(), rest_->data() + written_, rest_->size() - written_, MSG_DONTWAIT | MSG_NOSIGNAL);
    if (size < 0) return errno == EAGAIN || errno == EINTR;
    written_ += static_cast<std::size_t>(size);
    return written_ < rest_->size();
  }

 private:
  FileDescriptor socket_;
  Text rest_;
  std::size_t written_ = 0;
  Clock::time_point deadline_ = Clock::now() + kTimeout;
};

sockaddr_un AddressOf(const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.size() >= sizeof address.sun_path) {
    throw std::system_error(ENAMETOOLONG, std::generic_category(), path);
  }
  std::memcpy(address.sun_path, path.data(), path.size());
  return address;
}

int NewSocket() {
  return socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
}

// After a kill -9 the file is still there, and nobody behind it.
void RemoveStaleSocket(const std::string& path, const sockaddr_un& address) {
  struct stat status = {};
  if (lstat(path.c_str(), &status) != 0 || !S_ISSOCK(status.st_mode)) return;
  const FileDescriptor probe(NewSocket(), path);
  const int result = connect(probe.Number(), reinterpret_cast<const sockaddr*>(&address), sizeof address);
  if (result == -1 && errno == ECONNREFUSED) unlink(path.c_str());
}

int Listen(const std::string& path) {
  const sockaddr_un address = AddressOf(path);
  RemoveStaleSocket(path, address);
  const int listener = NewSocket();
  if (listener == -1 || bind(listener, reinterpret_cast<const sockaddr*>(&address), sizeof address) == -1) {
    const int reason = errno;
    if (listener != -1) close(listener);
    errno = reason;
    return -1;
  }
  // Until listen(2) nobody can connect, so the mode is right before it matters.
  chmod(path.c_str(), S_IRUSR | S_IWUSR | S_IRGRP | S_IWGRP);
  listen(listener, SOMAXCONN);
  return listener;
}

int MillisecondsUntil(Clock::time_point deadline) {
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now());
  return static_cast<int>(std::max<std::int64_t>(left.count(), 0));
}

}  // namespace

StatusSocket::StatusSocket(std::string path, std::function<Text()> makeSnapshot)
    : path_(std::move(path)),
      makeSnapshot_(std::move(makeSnapshot)),
      listener_(Listen(path_), path_),
      stop_(eventfd(0, EFD_CLOEXEC), "eventfd") {
  const ScopedSignalBlock block;
  thread_ = std::thread(&StatusSocket::Serve, this);
}

StatusSocket::~StatusSocket() {
  unlink(path_.c_str());
  eventfd_write(stop_.Number(), 1);
  thread_.join();
}

void StatusSocket::Serve() {
  std::list<Reader> readers;  // oldest first
  Text snapshot;
  Clock::time_point made;
  std::vector<pollfd> files;
  for (;;) {
    files = {{stop_.Number(), POLLIN, 0}, {listener_.Number(), POLLIN, 0}};
    for (const Reader& reader : readers) files.push_back({reader.Number(), POLLOUT, 0});
    poll(files.data(), files.size(), readers.empty() ? -1 : MillisecondsUntil(readers.front().Deadline()));
    if (files[0].revents != 0) return;

    auto file = files.begin() + 2;
    for (auto reader = readers.begin(); reader != readers.end(); ++file) {
      const bool goesOn = reader->Deadline() > Clock::now() && (file->revents == 0 || reader->Write());
      reader = goesOn ? std::next(reader) : readers.erase(reader);
    }
    if (files[1].revents == 0) continue;
    const int number = accept4(listener_.Number(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (number == -1) {
      // Without a free descriptor the reader stays in the queue, and poll would return at once for ever.
      std::this_thread::sleep_for(kPauseAfterFailure);
      continue;
    }
    if (snapshot == nullptr || Clock::now() - made > kSnapshotAge) {
      snapshot = makeSnapshot_();
      made = Clock::now();
    }
    if (readers.size() == kReaders) readers.pop_front();
    readers.emplace_back(number, snapshot);
  }
}
