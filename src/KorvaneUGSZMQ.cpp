#include "KorvaneUGSZMQ.h"

#include <sys/random.h>

#include <array>
#include <chrono>
#include <cstdlib>
#include <optional>
#include <utility>
#include <zmq.hpp>

#include "Logging.h"

using std::chrono::milliseconds;

namespace {

constexpr const char* kForwardingEndpoint = "inproc://WaitingThreadWorker";
constexpr int kIoThreads = 1;
constexpr int kMaxSockets = 1023;
constexpr milliseconds kPollTimeout(1000);    // bounds the time to notice a stop
constexpr milliseconds kHeldPollTimeout(10);  // bounds the time to notice that requests are held no longer
constexpr int kLinger = 100;                  // milliseconds for replies in flight at a stop
constexpr milliseconds kGraceBeforeTerm(200);

// A ROUTER names its peers by counting up from a number that libzmq draws from rand() and never seeds. A peer
// that claims the next name ends the process in an assertion, so the number must not be the same each time.
void SeedPeerNames() {
  unsigned seed = 0;
  if (getrandom(&seed, sizeof seed, 0) == sizeof seed) std::srand(seed);
}

std::shared_ptr<zmq::socket_t> CreateBoundSocket(zmq::context_t& context, zmq::socket_type type,
                                                 const std::string& endpoint) {
  static constexpr FunctionLog log("KorvaneUGSZMQ::CreateSocket");
  try {
    auto socket = std::make_shared<zmq::socket_t>(context, type);
    socket->bind(endpoint);
    return socket;
  } catch (const zmq::error_t& error) {
    log.Error("0x0081: {}: {}", endpoint, error.what());
    return nullptr;
  }
}

// A socket takes a descriptor, and once the ROUTER listens, peers may take every one that is left. Without
// one kept back for the first Reply, nobody would be answered until they leave.
std::shared_ptr<zmq::socket_t> CreateReservedSocket(zmq::context_t& context) {
  try {
    return std::make_shared<zmq::socket_t>(context, zmq::socket_type::pair);
  } catch (const zmq::error_t&) {
    return nullptr;  // Reply tries again, and says what is wrong
  }
}

void SetLinger(zmq::socket_t& router) {
  static constexpr FunctionLog log("KorvaneUGSZMQ::WaitingThreadWorker");
  try {
    router.set(zmq::sockopt::linger, kLinger);
  } catch (const zmq::error_t& error) {
    log.Info("Socket linger could not be set: {}", error.what());
  }
}

std::optional<zmq::message_t> TryReceive(zmq::socket_t& socket) {
  zmq::message_t frame;
  if (!socket.recv(frame, zmq::recv_flags::dontwait)) return std::nullopt;
  return frame;
}

// Of the peer that sent `frame`: zmq_msg_gets(3).
std::string PeerAddress(zmq::message_t& frame) {
  try {
    return frame.gets("Peer-Address");
  } catch (const zmq::error_t&) {
    return {};
  }
}

}  // namespace

struct KorvaneUGSZMQ::Request {
  zmq::message_t identity;
  zmq::message_t payload;
};

// Takes frames two at a time, across message boundaries, and never waits for the second one: after a message
// with an odd number of frames such a wait would hold back every reply and the stop with it.
class KorvaneUGSZMQ::FramePairs {
 public:
  // The next pair, or nothing if a frame of it has yet to arrive; a first frame is then kept.
  std::optional<Request> Take(zmq::socket_t& socket) {
    if (!identity_) identity_ = TryReceive(socket);
    if (!identity_) return std::nullopt;
    auto payload = TryReceive(socket);
    if (!payload) return std::nullopt;
    return Request{*std::exchange(identity_, std::nullopt), std::move(*payload)};
  }

 private:
  std::optional<zmq::message_t> identity_;
};

// What the worker thread alone uses; the router is null if its port could not be bound.
struct KorvaneUGSZMQ::Sockets {
  explicit Sockets(std::uint32_t port)
      : forwarding(CreateBoundSocket(*context, zmq::socket_type::pair, kForwardingEndpoint)),
        reservedReply(CreateReservedSocket(*context)) {
    SeedPeerNames();
    router = CreateBoundSocket(*context, zmq::socket_type::router, "tcp://0.0.0.0:" + std::to_string(port));
  }

  void Close() {
    forwarding.reset();
    if (router != nullptr) SetLinger(*router);
    router.reset();
    std::this_thread::sleep_for(kGraceBeforeTerm);
    context->shutdown();
    context->close();
  }

  const std::shared_ptr<zmq::context_t> context = std::make_shared<zmq::context_t>(kIoThreads, kMaxSockets);
  std::shared_ptr<zmq::socket_t> forwarding;
  std::shared_ptr<zmq::socket_t> reservedReply;
  std::shared_ptr<zmq::socket_t> router;
};

KorvaneUGSZMQ::~KorvaneUGSZMQ() {
  Stop();
}

bool KorvaneUGSZMQ::SetPort(std::uint32_t port) {
  port_ = port;
  return true;
}

bool KorvaneUGSZMQ::Start() {
  Stop();
  running_ = true;
  worker_ = std::thread(&KorvaneUGSZMQ::WaitingThreadWorker, this, port_);
  return true;
}

void KorvaneUGSZMQ::Stop() {
  running_ = false;
  if (worker_.joinable()) worker_.join();
}

void KorvaneUGSZMQ::WaitingThreadWorker(std::uint32_t port) {
  Sockets sockets(port);
  Publish(sockets);
  if (sockets.forwarding != nullptr && sockets.router != nullptr) {
    SetServing(true);
    ProcessWork(*sockets.router, *sockets.forwarding);
    SetServing(false);
  }
  Withdraw();
  sockets.Close();
}

// From here on Reply takes the worker to be serving. Only after the channel is bound: a Reply never connects
// to an endpoint that is not there yet.
void KorvaneUGSZMQ::Publish(Sockets& sockets) {
  const ugs::MutexLock lock(mutex_);
  replySocket_.reset();
  reservedReplySocket_ = std::move(sockets.reservedReply);
  context_ = sockets.context;
}

// From here on Reply drops what it is given.
void KorvaneUGSZMQ::Withdraw() {
  static constexpr FunctionLog log("KorvaneUGSZMQ::WaitingThreadWorker");
  std::shared_ptr<zmq::socket_t> replySocket;
  {
    const ugs::MutexLock lock(mutex_);
    context_.reset();
    replySocket = std::move(replySocket_);
    reservedReplySocket_.reset();
  }
  if (replySocket != nullptr) log.Info("Cleaning up Reply socket in main thread!");
}

void KorvaneUGSZMQ::ProcessWork(zmq::socket_t& router, zmq::socket_t& forwarding) {
  static constexpr FunctionLog log("KorvaneUGSZMQ::ProcessWork");
  FramePairs pairs;
  while (running_) {
    // An error costs one iteration, never the thread.
    try {
      const bool held = RequestsAreHeld();
      const short routerEvents = held ? 0 : ZMQ_POLLIN;
      std::array<zmq::pollitem_t, 2> items{
          {{router.handle(), 0, routerEvents, 0}, {forwarding.handle(), 0, ZMQ_POLLIN, 0}}};
      zmq::poll(items, held ? kHeldPollTimeout : kPollTimeout);
      if ((items[0].revents & ZMQ_POLLIN) != 0) TakeRequest(router, pairs);
      if ((items[1].revents & ZMQ_POLLIN) != 0) ForwardReply(router, forwarding);
    } catch (const zmq::error_t& error) {
      log.Error("0x0082 {}", error.what());
    } catch (const std::exception& error) {
      log.Error("0x0083 {}", error.what());
    }
  }
}

void KorvaneUGSZMQ::TakeRequest(zmq::socket_t& router, FramePairs& pairs) {
  static constexpr FunctionLog log("KorvaneUGSZMQ::ProcessWork");
  auto request = frames_ == RequestFrames::Strict ? TakeMessage(router) : pairs.Take(router);
  if (!request) return;
  if (request->identity.empty() || request->payload.empty()) {
    log.Error("0x0084 Invalid incoming data");
    if (MalformedCallback()) MalformedCallback()(PeerAddress(request->payload));
    return;
  }
  if (const RequestCallback callback = CopyRequestCallback()) {
    request_ = &request->payload;
    callback(request->identity.to_string(), request->payload.to_string());
    request_ = nullptr;
  }
}

std::string KorvaneUGSZMQ::RequestAddress() const {
  return request_ != nullptr ? PeerAddress(*request_) : std::string();
}

// Takes a whole message; none of it is waited for, since the ROUTER shows a message only when all of it is
// there. One of another length than two frames becomes a request that lacks one of them.
std::optional<KorvaneUGSZMQ::Request> KorvaneUGSZMQ::TakeMessage(zmq::socket_t& router) {
  auto identity = TryReceive(router);
  if (!identity) return std::nullopt;
  zmq::message_t frame;
  bool more = identity->more();
  if (more) more = router.recv(frame, zmq::recv_flags::dontwait) && frame.more();
  if (!more) return Request{std::move(*identity), std::move(frame)};
  // A peer may send a million frames. Others wait meanwhile, so the loop does nothing else.
  while (more) more = router.recv(frame, zmq::recv_flags::dontwait) && frame.more();
  return Request{zmq::message_t(), std::move(frame)};
}

void KorvaneUGSZMQ::ForwardReply(zmq::socket_t& router, zmq::socket_t& forwarding) {
  // A frame that comes alone is a reply whose identity was lost to a full channel: it belongs to nobody.
  // Pairing it with the next frame would shift every later reply.
  auto identity = TryReceive(forwarding);
  if (!identity || !identity->more()) return;
  auto reply = TryReceive(forwarding);
  if (!reply) return;
  // To a peer that is gone or reads nothing the ROUTER drops it: sending does not wait.
  router.send(*identity, zmq::send_flags::sndmore);
  router.send(*reply, zmq::send_flags::dontwait);
}

void KorvaneUGSZMQ::Reply(std::string identity, std::string reply) {
  static constexpr FunctionLog log("KorvaneUGSZMQ::Reply");
  const ugs::MutexLock lock(mutex_);
  if (context_ == nullptr) {
    if (replySocket_ != nullptr) {  // left by a worker that ended without withdrawing it
      log.Info("Closing up Reply channel");
      replySocket_.reset();
    }
    return;
  }
  if (replySocket_ == nullptr && !ConnectReplySocket()) return;
  try {
    // Neither send may wait: the worker takes this mutex when it stops reading the channel. What does not
    // fit into the channel is lost.
    replySocket_->send(zmq::buffer(identity), zmq::send_flags::sndmore | zmq::send_flags::dontwait);
    if (!replySocket_->send(zmq::buffer(reply), zmq::send_flags::dontwait)) CountLostReply();
  } catch (const zmq::error_t& error) {
    log.Error("0x0086: {}", error.what());
    CountLostReply();
    replySocket_.reset();
  }
}

bool KorvaneUGSZMQ::ConnectReplySocket() {
  static constexpr FunctionLog log("KorvaneUGSZMQ::Reply");
  log.Info("Creating response socket and connecting back");
  try {
    auto socket = std::exchange(reservedReplySocket_, nullptr);
    if (socket == nullptr) socket = std::make_shared<zmq::socket_t>(*context_, zmq::socket_type::pair);
    socket->connect(kForwardingEndpoint);
    replySocket_ = std::move(socket);
    return true;
  } catch (const zmq::error_t& error) {
    log.Error("0x0085: {}", error.what());
    return false;
  }
}
