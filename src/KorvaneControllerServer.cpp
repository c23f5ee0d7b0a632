#include "KorvaneControllerServer.h"

#include <malloc.h>
#include <rapidjson/document.h>
#include <sys/prctl.h>

#include <chrono>

#include "Deadline.h"
#include "Envelope.h"
#include "FleetStatus.h"
#include "JsonReader.h"
#include "Logging.h"
#include "Secrets.h"
#include "UGSDefs.h"

namespace {

constexpr std::chrono::milliseconds kTick(10);  // one request at most in each

// What peers have sent may leave megabytes behind that the C library would keep: a message of which the last
// frame never came, for one, is gathered outside of the queue. So it is asked to give them back, about once a
// minute.
constexpr std::uint64_t kTicksBetweenTrims = 5000;

}  // namespace

KorvaneControllerServer::KorvaneControllerServer(bool encrypted, std::uint32_t port,
                                                 std::string_view scrambledKey,
                                                 std::unique_ptr<KorvaneUGSCommunicator> communicator,
                                                 FleetStatus* status)
    : encrypted_(encrypted),
      port_(port),
      status_(status),
      scrambledKey_(scrambledKey),
      records_(status),
      communicator_(std::move(communicator)) {}

KorvaneControllerServer::~KorvaneControllerServer() {
  if (communicator_ != nullptr) {
    // The callback puts requests into the queue under this mutex: none is half put in when it is removed. The
    // worker may have copied it before and call it once more, which is why the queue outlives the
    // communicator.
    const ugs::MutexLock lock(queueMutex_);
    communicator_->SetRequestCallback({});
  }
  StopLoop();
  ugs::Wipe(scrambledKey_.data(), scrambledKey_.size());
  communicator_.reset();
  malloc_trim(0);  // the registry's successor starts empty, and a flood's memory should not stay for it
}

void KorvaneControllerServer::Start() {
  StopLoop();
  if (communicator_ != nullptr) {
    communicator_->SetPort(port_);
    if (status_ != nullptr) {
      communicator_->SetMalformedCallback(
          [status = status_](const std::string& address) { status->RefuseMalformed(address); });
    }
    communicator_->Start();
    // After the start: a request that comes in between is dropped, and its instance reports again.
    communicator_->SetRequestCallback(
        [this, &communicator = *communicator_](std::string identity, std::string payload) {
          std::string address = status_ != nullptr ? communicator.RequestAddress() : std::string();
          const ugs::MutexLock lock(queueMutex_);
          queue_.push({std::move(identity), std::move(payload), std::move(address)});
          HoldRequestsIfFull(communicator);
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
    if (auto request = TakeRequest()) Answer(std::move(*request));
    EndTick();
  } while (runState_ == 1);
}

void KorvaneControllerServer::Answer(Request request) {
  if (status_ != nullptr) status_->BeginRequest(std::move(request.address));
  const std::int32_t reply = ProcessData(request.payload);
  communicator_->Reply(std::move(request.identity), std::to_string(reply));
  if (status_ != nullptr) status_->EndRequest(reply);
}

void KorvaneControllerServer::EndTick() {
  if (++ticks_ % kTicksBetweenTrims == 0) malloc_trim(0);
  if (status_ == nullptr || communicator_ == nullptr) return;
  std::size_t queued = 0;
  {
    const ugs::MutexLock lock(queueMutex_);
    queued = queue_.size();
  }
  status_->EndTick(
      {.queue = queued, .repliesLost = communicator_->RepliesLost(), .serving = communicator_->IsServing()});
}

std::optional<KorvaneControllerServer::Request> KorvaneControllerServer::TakeRequest() {
  const ugs::MutexLock lock(queueMutex_);
  if (queue_.empty()) return std::nullopt;
  Request request = std::move(queue_.front());
  queue_.pop();
  HoldRequestsIfFull(*communicator_);
  return request;
}

void KorvaneControllerServer::HoldRequestsIfFull(KorvaneUGSCommunicator& communicator) {
  communicator.HoldRequests(queue_.size() >= kQueueRoom);
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
  if (status_ != nullptr) status_->ReadDocument(UGSRequest::LayoutName(document), request.korvaneId);
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
