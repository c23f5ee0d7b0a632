#include "TestSupport.h"

#include <arpa/inet.h>
#include <openssl/bio.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <stdexcept>
#include <thread>

#include "UgsClient.h"
#include "UsageRecords.h"

class CapturedLog::Sink : public spdlog::sinks::base_sink<std::mutex> {
 public:
  std::vector<LogLine> Lines() {
    const std::scoped_lock lock(mutex_);
    return lines_;
  }
  std::vector<std::string> Files() {
    const std::scoped_lock lock(mutex_);
    return files_;
  }
  void Clear() {
    const std::scoped_lock lock(mutex_);
    lines_.clear();
    files_.clear();
  }

 protected:
  void sink_it_(const spdlog::details::log_msg& message) override {
    lines_.push_back({message.level, message.source.funcname,
                      std::string(message.payload.data(), message.payload.size())});
    files_.push_back(std::string(message.source.filename) + (message.source.line > 0 ? "" : ":0"));
  }
  void flush_() override {}

 private:
  std::vector<LogLine> lines_;
  std::vector<std::string> files_;
};

LogLine ErrorLine(std::string function, std::string text) {
  return {spdlog::level::err, std::move(function), std::move(text)};
}
LogLine InfoLine(std::string function, std::string text) {
  return {spdlog::level::info, std::move(function), std::move(text)};
}

CapturedLog::CapturedLog() : before_(spdlog::default_logger()), sink_(std::make_shared<Sink>()) {
  spdlog::set_default_logger(std::make_shared<spdlog::logger>("captured", sink_));
}
CapturedLog::~CapturedLog() {
  spdlog::set_default_logger(before_);
}
std::vector<LogLine> CapturedLog::Lines() const {
  return sink_->Lines();
}
std::vector<std::string> CapturedLog::Texts() const {
  std::vector<std::string> texts;
  for (const LogLine& line : Lines()) texts.push_back(line.text);
  return texts;
}
std::size_t CapturedLog::Count(const std::string& text) const {
  const auto texts = Texts();
  return static_cast<std::size_t>(std::count(texts.begin(), texts.end(), text));
}
std::vector<std::string> CapturedLog::Files() const {
  return sink_->Files();
}
void CapturedLog::Clear() {
  sink_->Clear();
}

StandingClock::StandingClock(std::int32_t start) : now(start), before_(clockFunction) {
  clockFunction = [this] {
    return now;
  };
}
StandingClock::~StandingClock() {
  clockFunction = before_;
}

bool Await(const std::function<bool()>& condition) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  while (std::chrono::steady_clock::now() < deadline) {
    if (condition()) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return condition();
}

std::vector<std::string> KeysOf(const std::string& layout) {
  std::vector<std::string> keys{"MaxCameras", "ABD",       "AN",    "CR",        "ClassTier1", "ClassTier2",
                                "ClassTier3", "Perimeter", "Dwell", "Collision", "NeuralPack"};
  const auto add = [&](std::initializer_list<const char*> more) {
    keys.insert(keys.end(), more.begin(), more.end());
  };
  if (layout >= "v4") add({"PX", "Plates", "Generative", "ClassTier0"});
  if (layout >= "v5") add({"RemoteTier1", "RemoteTier2", "RemoteTier3", "RemoteTier4"});
  if (layout >= "v6") add({"FaceTier1", "FaceTier2"});
  return keys;
}

std::string DocumentText::Write() const {
  const auto members = [this](const std::vector<std::pair<std::string, std::string>>& defaults) {
    std::string text;
    for (const auto& [key, value] : defaults) {
      if (key == without) continue;
      const auto replaced = raw.find(key);
      text +=
          (text.empty() ? "\"" : ",\"") + key + "\":" + (replaced == raw.end() ? value : replaced->second);
    }
    return "{" + text + "}";
  };
  std::vector<std::pair<std::string, std::string>> counts;
  for (const std::string& key : KeysOf(layout)) counts.emplace_back(key, "0");
  const std::string request = members({{"KorvaneID", "\"id\""},
                                       {"DockerID", "\"docker\""},
                                       {"CamRtspUrls", "[\"rtsp://camera\"]"},
                                       {"InUse", members(counts)}});
  return layout.empty() ? request : "{\"" + layout + "\":" + request + "}";
}

std::string PublicKeyPem() {
  std::ifstream file(UGS_PUBLIC_KEY);
  return {std::istreambuf_iterator<char>(file), {}};
}

std::string Seal(std::string_view plaintext) {
  static const ugs::Sealer sealer(PublicKeyPem());
  return sealer.Seal(plaintext);
}

namespace {
const unsigned char* Raw(std::string_view bytes) {
  return reinterpret_cast<const unsigned char*>(bytes.data());
}
unsigned char* Raw(std::string& bytes) {
  return reinterpret_cast<unsigned char*>(bytes.data());
}
void Require(bool succeeded) {
  if (!succeeded) throw std::runtime_error("OpenSSL failed in a test");
}
}  // namespace

std::string WrapKey(std::string_view key) {
  const std::string pem = PublicKeyPem();
  const std::unique_ptr<BIO, decltype(&BIO_free)> bio(
      BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size())), BIO_free);
  const std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)> publicKey(
      PEM_read_bio_PUBKEY(bio.get(), nullptr, nullptr, nullptr), EVP_PKEY_free);
  const std::unique_ptr<EVP_PKEY_CTX, decltype(&EVP_PKEY_CTX_free)> context(
      EVP_PKEY_CTX_new(publicKey.get(), nullptr), EVP_PKEY_CTX_free);
  std::string block(static_cast<std::size_t>(EVP_PKEY_get_size(publicKey.get())), '\0');
  std::size_t length = block.size();
  Require(EVP_PKEY_encrypt_init(context.get()) == 1 &&
          EVP_PKEY_CTX_set_rsa_padding(context.get(), RSA_PKCS1_PADDING) == 1 &&
          EVP_PKEY_encrypt(context.get(), Raw(block), &length, Raw(key), key.size()) == 1);
  return block;
}

std::string AesEncrypt(std::string_view key, std::string_view iv, std::string_view plaintext) {
  const EVP_CIPHER* cipher = key.size() == 16   ? EVP_aes_128_cbc()
                             : key.size() == 24 ? EVP_aes_192_cbc()
                                                : EVP_aes_256_cbc();
  const std::unique_ptr<EVP_CIPHER_CTX, decltype(&EVP_CIPHER_CTX_free)> context(EVP_CIPHER_CTX_new(),
                                                                                EVP_CIPHER_CTX_free);
  std::string ciphertext(plaintext.size() + 16, '\0');
  int length = 0;
  int last = 0;
  Require(EVP_EncryptInit_ex(context.get(), cipher, nullptr, Raw(key), Raw(iv)) == 1 &&
          EVP_EncryptUpdate(context.get(), Raw(ciphertext), &length, Raw(plaintext),
                            static_cast<int>(plaintext.size())) == 1 &&
          EVP_EncryptFinal_ex(context.get(), Raw(ciphertext) + length, &last) == 1);
  ciphertext.resize(static_cast<std::size_t>(length) + static_cast<std::size_t>(last));
  return ciphertext;
}

std::string Base64Encode(std::string_view bytes) {
  std::string text((bytes.size() + 2) / 3 * 4 + 1, '\0');
  EVP_EncodeBlock(Raw(text), Raw(bytes), static_cast<int>(bytes.size()));
  text.pop_back();
  return text;
}

std::string EnvelopeOf(std::string_view block, std::string_view iv, std::string_view ciphertext) {
  return Base64Encode(R"({"data1":")" + Base64Encode(block) + R"(","data2":")" + Base64Encode(iv) +
                      R"(","data3":")" + Base64Encode(ciphertext) + R"("})");
}

std::uint16_t FreePort() {
  const int descriptor = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  socklen_t length = sizeof address;
  const bool bound = bind(descriptor, reinterpret_cast<sockaddr*>(&address), length) == 0 &&
                     getsockname(descriptor, reinterpret_cast<sockaddr*>(&address), &length) == 0;
  close(descriptor);
  if (!bound) throw std::runtime_error("no free port");
  return ntohs(address.sin_port);
}

Peer::Peer(std::uint16_t port, zmq::socket_type type) : socket_(context_, type) {
  socket_.set(zmq::sockopt::linger, 0);
  socket_.connect("tcp://127.0.0.1:" + std::to_string(port));
}

void Peer::SendFrames(const std::vector<std::string>& frames) {
  for (std::size_t i = 0; i < frames.size(); ++i) {
    socket_.send(zmq::buffer(frames[i]),
                 i + 1 < frames.size() ? zmq::send_flags::sndmore : zmq::send_flags::none);
  }
}

std::optional<std::string> Peer::Receive(int milliseconds) {
  socket_.set(zmq::sockopt::rcvtimeo, milliseconds);
  zmq::message_t frame;
  if (!socket_.recv(frame)) return std::nullopt;
  return frame.to_string();
}
