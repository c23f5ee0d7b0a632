#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <string>
#include <utility>

#include "Mutex.h"

// How requests reach the server and replies leave it. Identities, payloads and replies are byte strings.
//
// Order of calls: construct, SetPort, Start, SetRequestCallback; destroying the object stops it. Everything
// that the callback touches must outlive the object, not only the callback's removal: a call may be on its
// way while the callback is being replaced.
class KorvaneUGSCommunicator {
 public:
  using RequestCallback = std::function<void(std::string identity, std::string payload)>;

  KorvaneUGSCommunicator() = default;
  virtual ~KorvaneUGSCommunicator() = default;
  KorvaneUGSCommunicator(const KorvaneUGSCommunicator&) = delete;
  KorvaneUGSCommunicator& operator=(const KorvaneUGSCommunicator&) = delete;

  // Owner's thread. Begins to serve, or stops and begins again; blocks only in the second case (1.3 s). True
  // does not mean that the port could be bound. Throws std::system_error without a thread.
  virtual bool Start() = 0;

  // Any thread. Sends `reply` to the peer `identity`, or drops it if the transport is not serving, the peer
  // is gone or its queue is full. Does not block on the network and does not throw.
  virtual void Reply(std::string identity, std::string reply) = 0;

  // Owner's thread. The TCP port for the next Start.
  virtual bool SetPort(std::uint32_t port) = 0;

  // Any thread. An empty callback makes the transport drop requests.
  void SetRequestCallback(RequestCallback callback) UGS_EXCLUDES(callbackMutex_) {
    const ugs::MutexLock lock(callbackMutex_);
    requestCallback.swap(callback);
  }

  // Any thread. While `hold` is true the transport takes no request: what peers send waits in their own
  // connections, where a flood costs its sender alone. Replies go out all the same.
  void HoldRequests(bool hold) { held_ = hold; }

  // Owner's thread, before Start. `callback` is called on the transport's thread with the address of each
  // peer that sends what is no request, and must return quickly.
  void SetMalformedCallback(std::function<void(const std::string& address)> callback) {
    malformedCallback_ = std::move(callback);
  }

  // In a call of the callback, on its thread: the address of the peer that sent the request ("192.0.2.7").
  // Empty if the transport knows none.
  [[nodiscard]] virtual std::string RequestAddress() const { return {}; }

  // Any thread. Whether requests can come in: the port is open.
  [[nodiscard]] bool IsServing() const { return serving_; }

  // Any thread. Replies that Reply dropped since the construction though it was serving.
  [[nodiscard]] std::uint64_t RepliesLost() const { return repliesLost_; }

  // Called once per request on the transport's own thread, with no lock held; must return quickly, since
  // nothing is received meanwhile. Use SetRequestCallback while the transport is running.
  RequestCallback requestCallback UGS_GUARDED_BY(callbackMutex_);

 protected:
  [[nodiscard]] bool RequestsAreHeld() const { return held_; }
  [[nodiscard]] RequestCallback CopyRequestCallback() UGS_EXCLUDES(callbackMutex_) {
    const ugs::MutexLock lock(callbackMutex_);
    return requestCallback;
  }
  void SetServing(bool serving) { serving_ = serving; }
  [[nodiscard]] const std::function<void(const std::string& address)>& MalformedCallback() const {
    return malformedCallback_;
  }
  void CountLostReply() { ++repliesLost_; }

 private:
  std::function<void(const std::string& address)> malformedCallback_;
  std::atomic<bool> held_ = false;
  std::atomic<bool> serving_ = false;
  std::atomic<std::uint64_t> repliesLost_ = 0;
  ugs::Mutex callbackMutex_;  // held only to copy or assign the callback, never while it runs
};
