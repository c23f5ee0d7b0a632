#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>
#include <queue>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include "KorvaneUGSCommunicator.h"
#include "Mutex.h"
#include "UsageRecords.h"

// The intake: queues what the transport receives and, on its own thread, turns each payload into a reply.
// One request at most every 10 ms; the pacing is deliberate. A burst waits in the queue, and what the queue
// has no room for waits where it comes from: the transport takes turns between its peers, so that one of them
// who sends without end delays the others by a queue at most.
//
// Start and the destructor belong to the owner's thread; Records() may be used from any thread.
class KorvaneControllerServer {
 public:
  // Requests. The shorter the queue, the sooner a peer is answered beside one that floods; 32 leaves the
  // intake something to do while the transport fetches more.
  static constexpr std::size_t kQueueRoom = 32;

  // Opens no socket and starts no thread. With `encrypted` false, payloads are taken as plain documents.
  // `scrambledKey` is the private key in its stored form (ScrambledKey.h). A null `communicator` makes a
  // server that answers only direct calls of ProcessData. `status`, if it is not null, is told of all that
  // happens, and outlives the server.
  KorvaneControllerServer(bool encrypted, std::uint32_t port, std::string_view scrambledKey,
                          std::unique_ptr<KorvaneUGSCommunicator> communicator,
                          FleetStatus* status = nullptr);
  ~KorvaneControllerServer();  // blocks for up to 1.3 s; requests still in the queue get no reply
  KorvaneControllerServer(const KorvaneControllerServer&) = delete;
  KorvaneControllerServer& operator=(const KorvaneControllerServer&) = delete;

  // Starts the transport and the intake thread; if they are running, stops them first. Throws
  // std::system_error if a thread cannot be created.
  void Start();

  UsageRecords& Records() { return records_; }

  // Any thread. Whether the port is open, and how many ticks the intake has made: a number that no longer
  // grows is that of an intake that hangs.
  [[nodiscard]] bool IsServing() const { return communicator_ != nullptr && communicator_->IsServing(); }
  [[nodiscard]] std::uint64_t Ticks() const { return ticks_; }

  // Intake thread, or a caller of a server that was not started.

  // Opens, parses and applies one request. Returns its UGSDefs::ReplyCode.
  std::int32_t ProcessData(const std::string& payload);

  // Opens the envelope `payload` and appends its plaintext up to the last "}". Returns the number of bytes
  // appended, or -1. The caller wipes `plaintext`.
  std::int32_t DecryptData(const std::string& payload, std::vector<char>& plaintext);

 private:
  struct Request {
    std::string identity;
    std::string payload;
    std::string address;  // for the status only
  };

  void StopLoop();
  void ProcessLoop();
  std::optional<Request> TakeRequest() UGS_EXCLUDES(queueMutex_);
  void Answer(Request request);
  void EndTick();
  void HoldRequestsIfFull(KorvaneUGSCommunicator& communicator) UGS_REQUIRES(queueMutex_);
  UGSDefs::ReplyCode ProcessDocument(std::string_view text);

  const bool encrypted_;
  const std::uint32_t port_;
  FleetStatus* const status_;
  std::string scrambledKey_;  // read by the intake thread; wiped by the destructor once that is joined

  UsageRecords records_;

  ugs::Mutex queueMutex_;
  std::queue<Request> queue_ UGS_GUARDED_BY(queueMutex_);

  // After the queue, which its worker may touch until it is joined.
  std::unique_ptr<KorvaneUGSCommunicator> communicator_;

  std::atomic<std::uint64_t> ticks_ = 0;
  std::atomic<int> runState_ = 0;  // the loop runs while this is 1
  std::thread loop_;
};
