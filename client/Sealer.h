#pragma once

#include <memory>
#include <string>
#include <string_view>

struct evp_pkey_st;  // OpenSSL's EVP_PKEY

namespace ugs {

// Seals texts for the holder of one RSA private key. Immutable; thread-safe.
class Sealer {
 public:
  // `publicKey` is PEM text ("BEGIN PUBLIC KEY") or the name of a file that holds it. Throws
  // std::invalid_argument if the file cannot be read or the text is not that of an RSA public key.
  explicit Sealer(const std::string& publicKey);

  // The base64 text of an envelope that holds `plaintext`: AES-256-CBC under a fresh key and IV, the key
  // wrapped with RSA, PKCS #1 v1.5 padding. Throws std::runtime_error if OpenSSL fails.
  [[nodiscard]] std::string Seal(std::string_view plaintext) const;

  // SHA-256 of the DER form of the public key (SubjectPublicKeyInfo), in lowercase hexadecimal:
  // `openssl pkey -pubin -in public.pem -outform DER | sha256sum` prints the same.
  [[nodiscard]] std::string Fingerprint() const;

 private:
  std::shared_ptr<evp_pkey_st> key_;
};

}  // namespace ugs
