#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <thread>

#include "KorvaneUGSCommunicator.h"
#include "Mutex.h"

namespace zmq {
class context_t;
class message_t;
class socket_t;
}  // namespace zmq

// Which frames make a request.
enum class RequestFrames {
  Pairs,   // any two in a row, whatever messages they came in
  Strict,  // a message of exactly two, the peer's name and the payload; any other message is refused whole
};

// The transport over ZeroMQ: a ROUTER socket on all IPv4 interfaces, one frame in and one frame out per
// request as a DEALER peer sees it.
//
// One worker thread owns the ROUTER. Replies come from other threads, so they cross to the worker over an
// in-process PAIR channel; no socket is ever used by two threads at a time.
class KorvaneUGSZMQ : public KorvaneUGSCommunicator {
 public:
  explicit KorvaneUGSZMQ(RequestFrames frames = RequestFrames::Pairs) : frames_(frames) {}
  ~KorvaneUGSZMQ() override;  // blocks for up to 1.3 s while serving

  bool Start() override;
  void Reply(std::string identity, std::string reply) override;
  bool SetPort(std::uint32_t port) override;
  [[nodiscard]] std::string RequestAddress() const override;

 private:
  struct Request;
  class FramePairs;
  struct Sockets;

  void Stop();

  // Worker thread.
  void WaitingThreadWorker(std::uint32_t port);
  void Publish(Sockets& sockets) UGS_EXCLUDES(mutex_);
  void Withdraw() UGS_EXCLUDES(mutex_);
  void ProcessWork(zmq::socket_t& router, zmq::socket_t& forwarding);
  void TakeRequest(zmq::socket_t& router, FramePairs& pairs);
  static std::optional<Request> TakeMessage(zmq::socket_t& router);
  static void ForwardReply(zmq::socket_t& router, zmq::socket_t& forwarding);

  // Any thread.
  bool ConnectReplySocket() UGS_REQUIRES(mutex_);

  const RequestFrames frames_;
  zmq::message_t* request_ = nullptr;  // worker's, while the callback runs: the payload

  ugs::Mutex mutex_;  // held by Reply for its whole run
  // The callers' end of the channel, connected by the first Reply.
  std::shared_ptr<zmq::socket_t> replySocket_ UGS_GUARDED_BY(mutex_);
  // Made at the start, for the first Reply to use; null afterwards.
  std::shared_ptr<zmq::socket_t> reservedReplySocket_ UGS_GUARDED_BY(mutex_);
  // Set while the worker is serving.
  std::shared_ptr<zmq::context_t> context_ UGS_GUARDED_BY(mutex_);

  std::atomic<bool> running_ = false;
  std::uint32_t port_ = 5555;  // owner's thread; the worker gets a copy
  std::thread worker_;
};
