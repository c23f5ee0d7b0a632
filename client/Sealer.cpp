#include "Sealer.h"

#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rand.h>
#include <openssl/rsa.h>
#include <openssl/x509.h>

#include <array>
#include <fstream>
#include <iterator>
#include <memory>
#include <stdexcept>
#include <vector>

#include "Base64.h"
#include "OpenSsl.h"
#include "Secrets.h"
#include "UGSDefs.h"

namespace ugs {
namespace {

using Bytes = std::vector<unsigned char>;
using AesKey = std::array<unsigned char, 32>;
using Iv = std::array<unsigned char, 16>;

using KeyContextPtr = OpenSslPtr<EVP_PKEY_CTX, EVP_PKEY_CTX_free>;

void Require(bool succeeded, const char* step) {
  if (!succeeded) throw std::runtime_error(std::string("cannot seal the request: ") + step);
}

template <typename Buffer>
std::string Base64(const Buffer& bytes) {
  return Base64Encode({reinterpret_cast<const char*>(bytes.data()), bytes.size()});
}

// PKCS #1 v1.5 padding: what servers expect.
Bytes WrapKey(EVP_PKEY* publicKey, const AesKey& key) {
  const KeyContextPtr context(EVP_PKEY_CTX_new(publicKey, nullptr));
  std::size_t length = 0;
  Require(context != nullptr && EVP_PKEY_encrypt_init(context.get()) == 1 &&
              EVP_PKEY_CTX_set_rsa_padding(context.get(), RSA_PKCS1_PADDING) == 1 &&
              EVP_PKEY_encrypt(context.get(), nullptr, &length, key.data(), key.size()) == 1,
          "RSA set-up");
  Bytes block(length);
  Require(EVP_PKEY_encrypt(context.get(), block.data(), &length, key.data(), key.size()) == 1,
          "the RSA key is too short to wrap an AES-256 key");
  block.resize(length);
  return block;
}

// With PKCS #7 padding, which the server cuts off with everything after the last brace.
Bytes Encrypt(const AesKey& key, const Iv& iv, std::string_view plaintext) {
  const CipherContextPtr context(EVP_CIPHER_CTX_new());
  Bytes ciphertext(plaintext.size() + iv.size());
  int length = 0;
  int lastBlock = 0;
  Require(context != nullptr &&
              EVP_EncryptInit_ex(context.get(), EVP_aes_256_cbc(), nullptr, key.data(), iv.data()) == 1 &&
              EVP_EncryptUpdate(context.get(), ciphertext.data(), &length,
                                reinterpret_cast<const unsigned char*>(plaintext.data()),
                                static_cast<int>(plaintext.size())) == 1 &&
              EVP_EncryptFinal_ex(context.get(), ciphertext.data() + length, &lastBlock) == 1,
          "AES");
  ciphertext.resize(static_cast<std::size_t>(length) + static_cast<std::size_t>(lastBlock));
  return ciphertext;
}

struct DerDeleter {
  void operator()(unsigned char* bytes) const { OPENSSL_free(bytes); }
};

std::string PemText(const std::string& textOrFile) {
  // No file name holds a PEM header.
  if (textOrFile.find("-----BEGIN") != std::string::npos) return textOrFile;
  std::ifstream file(textOrFile);
  std::string text{std::istreambuf_iterator<char>(file), {}};
  if (!file) throw std::invalid_argument("cannot read the key file " + textOrFile);
  return text;
}

EVP_PKEY* ReadPublicKey(const std::string& pem) {
  const BioPtr bio(BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size())));
  return bio == nullptr ? nullptr : PEM_read_bio_PUBKEY(bio.get(), nullptr, nullptr, nullptr);
}

}  // namespace

Sealer::Sealer(const std::string& publicKey) : key_(ReadPublicKey(PemText(publicKey)), EVP_PKEY_free) {
  if (key_ == nullptr || EVP_PKEY_get_base_id(key_.get()) != EVP_PKEY_RSA) {
    throw std::invalid_argument("not the PEM text of an RSA public key");
  }
}

std::string Sealer::Seal(std::string_view plaintext) const {
  // Fresh for every text: with a used pair, equal texts would give equal ciphertexts.
  AesKey key;
  Iv iv;
  Require(RAND_bytes(key.data(), key.size()) == 1 && RAND_bytes(iv.data(), iv.size()) == 1, "random bytes");
  const WipeOnExit wipe(key);
  const auto member = [](const char* name, const std::string& base64) {
    return std::string("\"") + name + "\":\"" + base64 + '"';
  };
  return Base64Encode("{" + member(UGSDefs::kWrappedKeyMember, Base64(WrapKey(key_.get(), key))) + "," +
                      member(UGSDefs::kIvMember, Base64(iv)) + "," +
                      member(UGSDefs::kCiphertextMember, Base64(Encrypt(key, iv, plaintext))) + "}");
}

std::string Sealer::Fingerprint() const {
  unsigned char* der = nullptr;
  const int length = i2d_PUBKEY(key_.get(), &der);
  const std::unique_ptr<unsigned char, DerDeleter> owner(der);
  std::array<unsigned char, 32> digest{};
  Require(length > 0 && EVP_Digest(der, static_cast<std::size_t>(length), digest.data(), nullptr,
                                   EVP_sha256(), nullptr) == 1,
          "SHA-256");
  constexpr std::string_view digits = "0123456789abcdef";
  std::string text;
  for (const unsigned char byte : digest) {
    text += digits[byte >> 4];
    text += digits[byte & 15];
  }
  return text;
}

}  // namespace ugs
