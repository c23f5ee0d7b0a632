#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <queue>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include "KorvaneUGSCommunicator.h"
#include "UsageRecords.h"

// The private key this build carries, in its stored form (Envelope.h): deployment data, generated when the
// server is built. Only a caller that leaves the key out of the constructor needs it to be linked in.
std::string_view ScrambledPrivateKey();

// The intake: queues what the transport receives and, on its own thread, turns each payload into a reply.
// One request at most every 10 ms; the pacing is deliberate, a burst waits in the queue.
//
// Start and the destructor belong to the owner's thread; Records() may be used from any thread.
class KorvaneControllerServer {
 public:
  // Opens no socket and starts no thread. With `encrypted` false, payloads are taken as plain documents.
  // A null `communicator` makes a server that answers only direct calls of ProcessData.
  KorvaneControllerServer(bool encrypted, std::uint32_t port,
                          std::string_view scrambledKey = ScrambledPrivateKey(),
                          std::unique_ptr<KorvaneUGSCommunicator> communicator = CreateCommunicator());
  ~KorvaneControllerServer();  // blocks for up to 1.3 s; requests still in the queue get no reply
  KorvaneControllerServer(const KorvaneControllerServer&) = delete;
  KorvaneControllerServer& operator=(const KorvaneControllerServer&) = delete;

  // Starts the transport and the intake thread; if they are running, stops them first. Throws
  // std::system_error if a thread cannot be created.
  void Start();

  UsageRecords& Records() { return records_; }

  // Intake thread, or a caller of a server that was not started.

  // Opens, parses and applies one request. Returns its UGSDefs::ReplyCode.
  std::int32_t ProcessData(const std::string& payload);

  // Opens the envelope `payload` and appends its plaintext up to the last "}". Returns the number of bytes
  // appended, or -1. The caller wipes `plaintext`.
  std::int32_t DecryptData(const std::string& payload, std::vector<char>& plaintext);

 private:
  using Request = std::pair<std::string, std::string>;  // identity, payload

  static std::unique_ptr<KorvaneUGSCommunicator> CreateCommunicator();

  void StopLoop();
  void ProcessLoop();
  std::optional<Request> TakeRequest();
  void ReturnMemory();
  UGSDefs::ReplyCode ProcessDocument(std::string_view text);

  // Constant after construction.
  const bool encrypted_;
  const std::uint32_t port_;
  std::string scrambledKey_;  // intake thread

  UsageRecords records_;

  std::mutex queueMutex_;  // guards queue_
  std::queue<Request> queue_;
  std::size_t longestQueue_ = 0;  // since memory was last given back; intake thread

  // After the queue, which its worker may touch until it is joined.
  std::unique_ptr<KorvaneUGSCommunicator> communicator_;

  std::atomic<int> runState_ = 0;  // the loop runs while this is 1
  std::thread loop_;
};
