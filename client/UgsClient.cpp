#include "UgsClient.h"

#include <charconv>
#include <stdexcept>
#include <zmq.hpp>

#include "Sealer.h"
#include "UGSDefs.h"

namespace ugs {

Address ParseAddress(std::string_view server) {
  Address address{std::string(server), UGSDefs::kPort};
  if (const std::size_t colon = server.rfind(':'); colon != std::string_view::npos) {
    address.host.resize(colon);
    const char* end = server.data() + server.size();
    const auto [last, error] = std::from_chars(server.data() + colon + 1, end, address.port);
    if (error != std::errc() || last != end) address.port = 0;
  }
  if (address.host.empty() || address.host.find(':') != std::string::npos || address.port == 0) {
    throw std::invalid_argument("\"" + std::string(server) + "\" is not HOST or HOST:PORT");
  }
  return address;
}

class Client::Connection {
 public:
  Connection(const Address& address, const std::string& publicKeyPem, std::chrono::milliseconds replyTimeout)
      : endpoint_("tcp://" + address.host + ":" + std::to_string(address.port)),
        sealer_(publicKeyPem),
        replyTimeout_(replyTimeout) {
    try {
      Connect();
    } catch (const zmq::error_t& error) {
      throw std::invalid_argument("cannot connect to " + endpoint_ + ": " + error.what());
    }
  }

  std::optional<int> Ask(std::string_view plaintext) {
    socket_.send(zmq::buffer(sealer_.Seal(plaintext)), zmq::send_flags::none);
    zmq::message_t reply;
    if (!socket_.recv(reply)) {
      Connect();  // a late answer must not be taken for the next request's
      return std::nullopt;
    }
    int code = 0;
    const char* end = reply.data<char>() + reply.size();
    const auto [last, error] = std::from_chars(reply.data<char>(), end, code);
    if (error != std::errc() || last != end) throw std::runtime_error("the answer is not a reply code");
    return code;
  }

 private:
  void Connect() {
    socket_ = zmq::socket_t(context_, zmq::socket_type::dealer);
    socket_.set(zmq::sockopt::linger, 0);
    socket_.set(zmq::sockopt::rcvtimeo, static_cast<int>(replyTimeout_.count()));
    socket_.connect(endpoint_);
  }

  const std::string endpoint_;
  const Sealer sealer_;
  const std::chrono::milliseconds replyTimeout_;
  zmq::context_t context_;
  zmq::socket_t socket_;
};

Client::Client(std::string_view server, const std::string& publicKeyPem,
               std::chrono::milliseconds replyTimeout)
    : connection_(std::make_unique<Connection>(ParseAddress(server), publicKeyPem, replyTimeout)) {}
Client::~Client() = default;
Client::Client(Client&&) noexcept = default;
Client& Client::operator=(Client&&) noexcept = default;

std::optional<int> Client::Send(const Report& report) {
  return connection_->Ask(WriteDocument(report));
}
std::optional<int> Client::SendDocument(std::string_view document) {
  return connection_->Ask(document);
}
std::optional<int> Client::Greet() {
  return connection_->Ask(UGSDefs::kGreeting);
}

}  // namespace ugs
