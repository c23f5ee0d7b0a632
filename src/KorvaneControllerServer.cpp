#include "KorvaneControllerServer.h"

#include <malloc.h>
#include <rapidjson/document.h>
#include <sys/prctl.h>

#include <algorithm>
#include <chrono>

#include "Deadline.h"
#include "Envelope.h"
#include "JsonReader.h"
#include "Logging.h"
#include "Secrets.h"
#include "UGSDefs.h"

namespace {

constexpr std::chrono::milliseconds kTick(10);  // one request at most in each

// A queue that once held this many requests leaves megabytes behind that the C library would keep.
constexpr std::size_t kLongQueue = 10'000;

}  // namespace

KorvaneControllerServer::KorvaneControllerServer(bool encrypted, std::uint32_t port,
                                                 std::string_view scrambledKey,
                                                 std::unique_ptr<KorvaneUGSCommunicator> communicator)
    : encrypted_(encrypted),
      port_(port),
      scrambledKey_(scrambledKey),
      communicator_(std::move(communicator)) {}

KorvaneControllerServer::~KorvaneControllerServer() {
  if (communicator_ != nullptr) {
    // The callback puts requests into the queue under this mutex: none is half put in when it is removed. The
    // worker may have copied it before and call it once more, which is why the queue outlives the
    // communicator.
    const MutexLock lock(queueMutex_);
    communicator_->SetRequestCallback({});
  }
  StopLoop();
  ugs::Wipe(scrambledKey_.data(), scrambledKey_.size());
  communicator_.reset();
  const MutexLock lock(queueMutex_);
  ReturnMemory();  // the registry's successor starts empty, and a flood's memory should not stay for it
}

void KorvaneControllerServer::Start() {
  StopLoop();
  if (communicator_ != nullptr) {
    communicator_->SetPort(port_);
    communicator_->Start();
    // After the start: a request that comes in between is dropped, and its instance reports again.
    communicator_->SetRequestCallback([this](const std::string& identity, const std::string& payload) {
      const MutexLock lock(queueMutex_);
      queue_.emplace(identity, payload);
    });
  }
  runState_ = 1;
  loop_ = std::thread(&KorvaneControllerServer::ProcessLoop, this);
}

void KorvaneControllerServer::StopLoop() {
  runState_ = 0;
  if (loop_.joinable()) loop_.join();
}

void KorvaneControllerServer::ProcessLoop() {
  prctl(PR_SET_TIMERSLACK, 1UL);  // of this thread; the usual 50 us would lengthen every tick
  do {
    std::this_thread::sleep_until(DeadlineAfter(kTick));
    records_.CheckTimeStamp();
    if (auto request = TakeRequest()) {
      communicator_->Reply(std::move(request->first), std::to_string(ProcessData(request->second)));
    }
  } while (runState_ == 1);
}

std::optional<KorvaneControllerServer::Request> KorvaneControllerServer::TakeRequest() {
  const MutexLock lock(queueMutex_);
  if (queue_.empty()) {
    if (queuePeakSinceTrim_ >= kLongQueue) ReturnMemory();
    return std::nullopt;
  }
  queuePeakSinceTrim_ = std::max(queuePeakSinceTrim_, queue_.size());
  Request request = std::move(queue_.front());
  queue_.pop();
  return request;
}

// What is still in the queue is dropped with its memory. Holds up the worker for the moment it takes, once
// after a flood.
void KorvaneControllerServer::ReturnMemory() {
  queue_ = {};
  malloc_trim(0);
  queuePeakSinceTrim_ = 0;
}

std::int32_t KorvaneControllerServer::ProcessData(const std::string& payload) {
  if (!encrypted_) return ProcessDocument(payload);
  std::vector<char> plaintext;
  const ugs::WipeOnExit wipe(plaintext);
  if (DecryptData(payload, plaintext) < 0) return UGSDefs::Failed;
  const std::string_view text(plaintext.data(), plaintext.size());
  if (text == UGSDefs::kGreeting) return UGSDefs::Hello;
  return ProcessDocument(text);
}

UGSDefs::ReplyCode KorvaneControllerServer::ProcessDocument(std::string_view text) {
  static constexpr FunctionLog log("KorvaneControllerServer::ProcessData");
  rapidjson::Document document;
  // A null root makes Parse log the refusal.
  if (!ParseJson(text, document)) document.SetNull();
  UGSRequest::RequestData request;
  const UGSDefs::ReplyCode code = UGSRequest::Parse(document, request);
  if (code != UGSDefs::Ok) return code;
  if (records_.ApplyRequest(request) == UsageRecords::NoInstanceKey) {
    log.Error("Error 0x442:: something wrong\n");
    return UGSDefs::Failed;
  }
  return UGSDefs::Ok;
}

std::int32_t KorvaneControllerServer::DecryptData(const std::string& payload, std::vector<char>& plaintext) {
  return OpenEnvelope(payload, scrambledKey_, plaintext);
}
