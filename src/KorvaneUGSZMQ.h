#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

#include "KorvaneUGSCommunicator.h"

namespace zmq {
class context_t;
class message_t;
class socket_t;
}  // namespace zmq

// The transport over ZeroMQ: a ROUTER socket on all IPv4 interfaces, one frame in and one frame out per
// request as a DEALER peer sees it.
//
// One worker thread owns the ROUTER. Replies come from other threads, so they cross to the worker over an
// in-process PAIR channel; no socket is ever used by two threads at a time.
class KorvaneUGSZMQ : public KorvaneUGSCommunicator {
 public:
  KorvaneUGSZMQ() = default;
  ~KorvaneUGSZMQ() override;  // blocks for up to 1.2 s while serving

  bool Start() override;
  void Reply(std::string identity, std::string reply) override;
  bool SetPort(std::uint32_t port) override;

 private:
  class FramePairs;

  void Stop();

  // Worker thread.
  void WaitingThreadWorker(std::uint32_t port);
  void ProcessWork(zmq::socket_t& router, zmq::socket_t& forwarding);
  void TakeRequest(zmq::socket_t& router, FramePairs& pairs);
  static void ForwardReply(zmq::socket_t& router, zmq::socket_t& forwarding);

  std::mutex mutex_;  // guards the three pointers; held by Reply for its whole run
  std::shared_ptr<zmq::socket_t>
      replySocket_;  // the callers' end of the channel, connected by the first Reply
  std::shared_ptr<zmq::socket_t> spareSocket_;  // what the next replySocket_ is made of, if there is one
  std::shared_ptr<zmq::context_t> context_;     // set while the worker is serving

  std::atomic<bool> running_ = false;
  std::uint32_t port_ = 5555;  // owner's thread; the worker gets a copy
  std::thread worker_;
};
