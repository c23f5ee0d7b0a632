#include "TestSupport.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <fstream>
#include <stdexcept>
#include <thread>

#include "UgsClient.h"
#include "UsageRecords.h"

class CapturedLog::Sink : public spdlog::sinks::base_sink<std::mutex> {
 public:
  // Calls `use` with the lines, under the sink's lock.
  template <typename Use>
  auto WithLines(Use use) {
    const std::scoped_lock lock(mutex_);
    return use(lines_);
  }

 protected:
  void sink_it_(const spdlog::details::log_msg& message) override {
    const spdlog::source_loc& source = message.source;
    EXPECT_TRUE(std::string_view(source.filename).ends_with(".cpp") && source.line > 0)
        << message.payload.data();
    lines_.push_back({message.level, source.funcname, {message.payload.data(), message.payload.size()}});
  }
  void flush_() override {}

 private:
  std::vector<LogLine> lines_;
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
  return sink_->WithLines([](const auto& lines) { return lines; });
}
std::vector<std::string> CapturedLog::Texts() const {
  std::vector<std::string> texts;
  for (const LogLine& line : Lines()) texts.push_back(line.text);
  return texts;
}
std::size_t CapturedLog::Count(const std::string& text) const {
  return static_cast<std::size_t>(std::ranges::count(Texts(), text));
}
void CapturedLog::Clear() {
  sink_->WithLines([](auto& lines) { lines.clear(); });
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

std::string DocumentText::Write() const {
  const auto members = [this](const std::vector<std::pair<std::string, std::string>>& defaults) {
    std::string text;
    for (const auto& [key, value] : defaults) {
      const auto replaced = raw.find(key);
      text +=
          (text.empty() ? "\"" : ",\"") + key + "\":" + (replaced == raw.end() ? value : replaced->second);
    }
    return "{" + text + "}";
  };
  std::vector<std::pair<std::string, std::string>> counts;
  for (const std::string& key : ugs::CountKeys(layout)) counts.emplace_back(key, "0");
  const std::string request = members({{"KorvaneID", "\"id\""},
                                       {"DockerID", "\"docker\""},
                                       {"CamRtspUrls", "[\"rtsp://camera\"]"},
                                       {"InUse", members(counts)}});
  return layout == "legacy" ? request : "{\"" + layout + "\":" + request + "}";
}

std::string PublicKeyPem() {
  std::ifstream file(UGS_PUBLIC_KEY);
  return {std::istreambuf_iterator<char>(file), {}};
}

std::string Seal(std::string_view plaintext) {
  static const ugs::Sealer sealer(PublicKeyPem());
  return sealer.Seal(plaintext);
}

std::string WrapKey(std::string_view key) {
  using BioPtr = std::unique_ptr<BIO, decltype(&BIO_free)>;
  using KeyPtr = std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)>;
  static const std::string pem = PublicKeyPem();
  static const BioPtr bio(BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size())), BIO_free);
  static const KeyPtr publicKey(PEM_read_bio_PUBKEY(bio.get(), nullptr, nullptr, nullptr), EVP_PKEY_free);
  return Wrap(publicKey.get(), key.substr(0, 245));
}

std::string Wrap(EVP_PKEY* key, std::string_view text) {
  const std::unique_ptr<EVP_PKEY_CTX, decltype(&EVP_PKEY_CTX_free)> context(EVP_PKEY_CTX_new(key, nullptr),
                                                                            EVP_PKEY_CTX_free);
  std::string wrapped(static_cast<std::size_t>(EVP_PKEY_get_size(key)), '\0');
  std::size_t length = wrapped.size();
  EVP_PKEY_encrypt_init(context.get());
  EVP_PKEY_CTX_set_rsa_padding(context.get(), RSA_PKCS1_PADDING);
  EVP_PKEY_encrypt(context.get(), reinterpret_cast<unsigned char*>(wrapped.data()), &length,
                   reinterpret_cast<const unsigned char*>(text.data()), text.size());
  return Base64Encode(wrapped);
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
  try {
    if (!socket_.recv(frame)) return std::nullopt;
  } catch (const zmq::error_t& error) {
    if (error.num() != EINTR) throw;  // libFuzzer's timer
    return std::nullopt;
  }
  return frame.to_string();
}

RawPeer::RawPeer(std::uint16_t port, std::chrono::milliseconds farewell)
    : descriptor_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)), farewell_(farewell) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = htons(port);
  if (connect(descriptor_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
    throw std::runtime_error("cannot connect");
  }
}

RawPeer::~RawPeer() {
  SetReceiveTimeout(farewell_);
  shutdown(descriptor_, SHUT_WR);
  std::array<char, 4096> ignored;
  while (recv(descriptor_, ignored.data(), ignored.size(), 0) > 0) continue;
  close(descriptor_);
}

void RawPeer::SetReceiveTimeout(std::chrono::milliseconds timeout) const {
  const timeval value{timeout.count() / 1000, timeout.count() % 1000 * 1000};
  setsockopt(descriptor_, SOL_SOCKET, SO_RCVTIMEO, &value, sizeof value);
}

void RawPeer::ShakeHands() const {
  SetReceiveTimeout(std::chrono::seconds(20));
  std::string greeting(64, '\0');
  greeting.replace(0, 10, std::string("\xff\0\0\0\0\0\0\0\0\x7f", 10));
  greeting[10] = 3;
  greeting.replace(12, 4, "NULL");
  const std::string ready = std::string("\x05READY\x0bSocket-Type\0\0\0\x06", 22) + "DEALER";
  Write(greeting + '\x04' + static_cast<char>(ready.size()) + ready);
  // The other greeting, the flags of the other READY and its length, then that many bytes.
  std::array<char, 66> head{};
  std::array<char, 256> body{};
  recv(descriptor_, head.data(), head.size(), MSG_WAITALL);
  recv(descriptor_, body.data(), static_cast<unsigned char>(head.back()), MSG_WAITALL);
}

void RawPeer::Write(std::string_view bytes) const {
  while (!bytes.empty()) {
    const ssize_t written = send(descriptor_, bytes.data(), bytes.size(), MSG_NOSIGNAL);
    if (written <= 0) return;
    bytes.remove_prefix(static_cast<std::size_t>(written));
  }
}
