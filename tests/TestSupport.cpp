#include "TestSupport.h"

#include <openssl/pem.h>
#include <openssl/rsa.h>
#include <spdlog/pattern_formatter.h>
#include <spdlog/sinks/ringbuffer_sink.h>
#include <spdlog/spdlog.h>

#include <algorithm>
#include <chrono>
#include <fstream>
#include <iterator>
#include <thread>

#include "Base64.h"
#include "OpenSsl.h"
#include "Sealer.h"
#include "UsageRecords.h"

CapturedLog::CapturedLog(std::size_t lines) : before_(spdlog::default_logger()) {
  auto ring = std::make_shared<spdlog::sinks::ringbuffer_sink_mt>(lines);
  ring->set_formatter(
      std::make_unique<spdlog::pattern_formatter>("%l %!: %v", spdlog::pattern_time_type::local, ""));
  allLines_ = [ring] {
    return ring->last_formatted();
  };
  spdlog::set_default_logger(std::make_shared<spdlog::logger>("captured", ring));
}
CapturedLog::~CapturedLog() {
  spdlog::set_default_logger(before_);
}
std::vector<std::string> CapturedLog::Lines() const {
  auto lines = allLines_();
  lines.erase(lines.begin(), lines.begin() + static_cast<std::ptrdiff_t>(cleared_));
  return lines;
}
std::size_t CapturedLog::Count(std::string_view text) const {
  return static_cast<std::size_t>(
      std::ranges::count_if(Lines(), [&](const std::string& line) { return line.ends_with(text); }));
}

FakeClock::FakeClock(std::int32_t start) : now(start), before_(clockFunction) {
  clockFunction = [this] {
    return now;
  };
}
FakeClock::~FakeClock() {
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

std::string PublicKeyPem() {
  std::ifstream file(UGS_PUBLIC_KEY);
  return {std::istreambuf_iterator<char>(file), {}};
}

std::string Seal(std::string_view plaintext) {
  static const ugs::Sealer sealer(PublicKeyPem());
  return sealer.Seal(plaintext);
}

std::string Wrap(std::string_view text, EVP_PKEY* key) {
  static const ugs::PKeyPtr ours = [] {
    const std::string pem = PublicKeyPem();
    const ugs::BioPtr bio(BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size())));
    return ugs::PKeyPtr(PEM_read_bio_PUBKEY(bio.get(), nullptr, nullptr, nullptr));
  }();
  if (key == nullptr) key = ours.get();
  const ugs::OpenSslPtr<EVP_PKEY_CTX, EVP_PKEY_CTX_free> context(EVP_PKEY_CTX_new(key, nullptr));
  std::string wrapped(static_cast<std::size_t>(EVP_PKEY_get_size(key)), '\0');
  std::size_t length = wrapped.size();
  EVP_PKEY_encrypt_init(context.get());
  EVP_PKEY_CTX_set_rsa_padding(context.get(), RSA_PKCS1_PADDING);
  EVP_PKEY_encrypt(context.get(), reinterpret_cast<unsigned char*>(wrapped.data()), &length,
                   reinterpret_cast<const unsigned char*>(text.data()), text.size());
  return ugs::Base64Encode(wrapped);
}

std::uint16_t FreePort() {
  const std::unique_ptr<void, decltype(&zmq_ctx_term)> context(zmq_ctx_new(), zmq_ctx_term);
  const std::unique_ptr<void, decltype(&zmq_close)> socket(zmq_socket(context.get(), ZMQ_ROUTER), zmq_close);
  char endpoint[64] = "";
  std::size_t size = sizeof endpoint;
  zmq_bind(socket.get(), "tcp://127.0.0.1:*");
  zmq_getsockopt(socket.get(), ZMQ_LAST_ENDPOINT, endpoint, &size);
  return static_cast<std::uint16_t>(std::stoul(std::string(endpoint).substr(sizeof "tcp://127.0.0.1")));
}

Peer::Peer(std::uint16_t port, int type)
    : context_(zmq_ctx_new(), zmq_ctx_term), socket_(zmq_socket(context_.get(), type), zmq_close) {
  const int linger = 0;
  zmq_setsockopt(socket_.get(), ZMQ_LINGER, &linger, sizeof linger);
  zmq_connect(socket_.get(), ("tcp://127.0.0.1:" + std::to_string(port)).c_str());
}

void Peer::SendFrames(const std::vector<std::string>& frames) {
  for (std::size_t i = 0; i < frames.size(); ++i) {
    zmq_send(socket_.get(), frames[i].data(), frames[i].size(), i + 1 < frames.size() ? ZMQ_SNDMORE : 0);
  }
}

std::optional<std::string> Peer::Receive(int milliseconds) {
  zmq_setsockopt(socket_.get(), ZMQ_RCVTIMEO, &milliseconds, sizeof milliseconds);
  zmq_msg_t frame;
  zmq_msg_init(&frame);
  std::optional<std::string> bytes;
  if (zmq_msg_recv(&frame, socket_.get(), 0) != -1) {
    bytes.emplace(static_cast<const char*>(zmq_msg_data(&frame)), zmq_msg_size(&frame));
  }
  zmq_msg_close(&frame);
  return bytes;
}
