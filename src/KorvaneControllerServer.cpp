#include "KorvaneControllerServer.h"

#include <malloc.h>
#include <rapidjson/document.h>
#include <sys/prctl.h>

#include <algorithm>
#include <array>
#include <chrono>

#include "Deadline.h"
#include "Envelope.h"
#include "JsonReader.h"
#include "KorvaneUGSZMQ.h"
#include "Logging.h"

namespace {

constexpr std::chrono::milliseconds kTurn(10);

// A queue that once held this many requests leaves megabytes behind that the C library would keep.
constexpr std::size_t kLongQueue = 10'000;

// The length of `text` up to and including its last "}"; 0 without one.
template <typename Buffer>
std::size_t LengthToLastBrace(const Buffer& text) {
  return std::string_view(reinterpret_cast<const char*>(text.data()), text.size()).rfind('}') + 1;
}

// The string member `key` of `object`, or null.
const rapidjson::Value* FindString(const rapidjson::Value& object, const char* key) {
  const auto member = object.FindMember(key);
  return member == object.MemberEnd() || !member->value.IsString() ? nullptr : &member->value;
}

std::string_view StringOf(const rapidjson::Value& value) {
  return {value.GetString(), value.GetStringLength()};
}

}  // namespace

KorvaneControllerServer::KorvaneControllerServer(bool encrypted, std::uint32_t port,
                                                 std::string_view scrambledKey,
                                                 std::unique_ptr<KorvaneUGSCommunicator> communicator)
    : encrypted_(encrypted),
      port_(port),
      scrambledKey_(scrambledKey),
      communicator_(std::move(communicator)) {}

std::unique_ptr<KorvaneUGSCommunicator> KorvaneControllerServer::CreateCommunicator() {
  return std::make_unique<KorvaneUGSZMQ>();
}

KorvaneControllerServer::~KorvaneControllerServer() {
  if (communicator_ != nullptr) {
    const std::scoped_lock lock(queueMutex_);
    communicator_->SetRequestCallback({});
  }
  StopLoop();
  WipeMemory(scrambledKey_.data(), scrambledKey_.size());
  communicator_.reset();
  queue_ = {};
  malloc_trim(0);
}

void KorvaneControllerServer::Start() {
  StopLoop();
  if (communicator_ != nullptr) {
    communicator_->SetPort(port_);
    communicator_->Start();
    communicator_->SetRequestCallback([this](const std::string& identity, const std::string& payload) {
      const std::scoped_lock lock(queueMutex_);
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
  prctl(PR_SET_TIMERSLACK, 1UL);  // of this thread; the usual 50 us would lengthen every turn
  do {
    std::this_thread::sleep_until(DeadlineAfter(kTurn));
    records_.CheckTimeStamp();
    if (auto request = TakeRequest()) {
      communicator_->Reply(std::move(request->first), std::to_string(ProcessData(request->second)));
    }
  } while (runState_ == 1);
}

std::optional<KorvaneControllerServer::Request> KorvaneControllerServer::TakeRequest() {
  const std::scoped_lock lock(queueMutex_);
  if (queue_.empty()) {
    if (longestQueue_ >= kLongQueue) ReturnMemory();
    return std::nullopt;
  }
  longestQueue_ = std::max(longestQueue_, queue_.size());
  Request request = std::move(queue_.front());
  queue_.pop();
  return request;
}

// Holds up the worker for the moment it takes, once after a flood.
void KorvaneControllerServer::ReturnMemory() {
  queue_ = {};
  malloc_trim(0);
  longestQueue_ = 0;
}

std::int32_t KorvaneControllerServer::ProcessData(const std::string& payload) {
  if (!encrypted_) return ProcessDocument(payload);
  std::vector<char> plaintext;
  const WipeOnExit wipe(plaintext);
  if (DecryptData(payload, plaintext) < 0) return UGSDefs::Failed;
  const std::string_view text(plaintext.data(), plaintext.size());
  if (text == UGSDefs::kGreeting) return UGSDefs::Hello;
  return ProcessDocument(text);
}

UGSDefs::ReplyCode KorvaneControllerServer::ProcessDocument(std::string_view text) {
  static constexpr LogScope log("KorvaneControllerServer::ProcessData");
  rapidjson::Document document;
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
  static constexpr LogScope log("KorvaneControllerServer::DecryptData");
  ClearCryptoErrors();
  std::string pem = UnscrambleKey(scrambledKey_);
  const WipeOnExit wipePem(pem);

  const std::string outer = Base64Decode(payload);
  const std::size_t outerLength = LengthToLastBrace(outer);
  if (outerLength == 0) {
    log.Error("Received Invalid Content 0x316\n");
    return -1;
  }
  rapidjson::Document envelope;
  if (!ParseJson(std::string_view(outer).substr(0, outerLength), envelope) || !envelope.IsObject()) return -1;

  const rapidjson::Value* wrappedKey = FindString(envelope, "data1");
  if (wrappedKey == nullptr) {
    log.Error("Error 0x00AE03: Missing content\n");
    return -1;
  }
  const rapidjson::Value* iv = FindString(envelope, "data2");
  if (iv == nullptr) {
    log.Error("Error 0x00AE04: Missing content\n");
    return -1;
  }
  const rapidjson::Value* ciphertext = FindString(envelope, "data3");
  if (ciphertext == nullptr) {
    log.Error("Error 0x00AE05: Missing content\n");
    return -1;
  }

  Bytes key;
  if (RsaPrivateDecrypt(pem, std::string(StringOf(*wrappedKey)), wrappedKey->GetStringLength(), key) < 0) {
    log.Error("Error 0x00AE06: Decryption fail\n");
    return -1;
  }
  const WipeOnExit wipeKey(key);
  Bytes decrypted = AesCbcDecrypt(key, Base64Decode(StringOf(*iv)), Base64Decode(StringOf(*ciphertext)));
  const WipeOnExit wipeDecrypted(decrypted);
  const std::size_t length = LengthToLastBrace(decrypted);
  if (length == 0) return -1;
  plaintext.insert(plaintext.end(), decrypted.begin(),
                   decrypted.begin() + static_cast<std::ptrdiff_t>(length));
  return static_cast<std::int32_t>(length);
}
