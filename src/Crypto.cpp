// The RSA block is opened with OpenSSL's low-level calls, which OpenSSL 3 deprecates but keeps.
#define OPENSSL_SUPPRESS_DEPRECATED

#include "Crypto.h"

#include <openssl/crypto.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>

#include <algorithm>
#include <array>
#include <optional>
#include <utility>

#include "Base64.h"
#include "Logging.h"
#include "OpenSsl.h"
#include "RsaBlinding.h"
#include "Secrets.h"

namespace {

constexpr std::size_t kAesBlock = 16;  // bytes; also the size of an IV

using RsaPtr = ugs::OpenSslPtr<RSA, RSA_free>;

// What PEM_read_bio_RSAPrivateKey does for an unencrypted PKCS #1 key, without the decoder machinery that
// costs it more than the RSA operation itself, and without ever asking on the terminal for a password.
RsaPtr ReadRsaPrivateKey(BIO* bio) {
  char* name = nullptr;
  char* header = nullptr;
  unsigned char* der = nullptr;
  long length = 0;
  if (PEM_read_bio_ex(bio, &name, &header, &der, &length, PEM_FLAG_SECURE | PEM_FLAG_EAY_COMPATIBLE) != 1) {
    return nullptr;
  }
  const bool isPlainPkcs1 = std::string_view(name) == PEM_STRING_RSA && *header == '\0';
  const unsigned char* cursor = der;
  RsaPtr key(isPlainPkcs1 ? d2i_RSAPrivateKey(nullptr, &cursor, length) : nullptr);
  OPENSSL_secure_free(name);
  OPENSSL_secure_free(header);
  OPENSSL_secure_clear_free(der, static_cast<std::size_t>(length));
  return key;
}

// Opens `block` with `key` and takes its PKCS #1 v1.5 padding off; nothing if the padding is wrong. OpenSSL
// up to 3.1 does so in one call. From 3.2 on that call answers wrong padding with random bytes (implicit
// rejection), and a report for another server's key would look like a damaged one. These two calls mean the
// same in every version, whichever the program was built with. The second takes constant time.
std::optional<Bytes> OpenBlock(RSA* key, const std::string& block) {
  const int size = RSA_size(key);
  Bytes padded(static_cast<std::size_t>(size));
  const ugs::WipeOnExit wipe(padded);
  if (RSA_private_decrypt(static_cast<int>(block.size()),
                          reinterpret_cast<const unsigned char*>(block.data()), padded.data(), key,
                          RSA_NO_PADDING) != size) {
    return std::nullopt;
  }
  Bytes opened(padded.size());
  const int length = RSA_padding_check_PKCS1_type_2(opened.data(), size, padded.data(), size, size);
  if (length < 0) return std::nullopt;
  opened.resize(static_cast<std::size_t>(length));
  return opened;
}

// The cipher for a key of `length` bytes, or null. Looking one up costs more than a report's decryption, so
// each is fetched once in the life of the process.
const EVP_CIPHER* CbcCipher(std::size_t length) {
  static const ugs::CipherPtr aes128(EVP_CIPHER_fetch(nullptr, "AES-128-CBC", nullptr));
  static const ugs::CipherPtr aes192(EVP_CIPHER_fetch(nullptr, "AES-192-CBC", nullptr));
  static const ugs::CipherPtr aes256(EVP_CIPHER_fetch(nullptr, "AES-256-CBC", nullptr));
  switch (length) {
    case 16:
      return aes128.get();
    case 24:
      return aes192.get();
    case 32:
      return aes256.get();
    default:
      return nullptr;
  }
}

// Decrypts whole blocks. `output` has room for as many bytes as `input` has.
bool DecryptBlocks(EVP_CIPHER_CTX* context, std::string_view input, unsigned char* output) {
  int length = 0;
  return EVP_DecryptUpdate(context, output, &length, reinterpret_cast<const unsigned char*>(input.data()),
                           static_cast<int>(input.size())) == 1;
}

}  // namespace

std::int32_t RsaPrivateDecrypt(const std::string& pemKey, const std::string& text, std::size_t length,
                               Bytes& out) {
  const ugs::BioPtr bio(BIO_new_mem_buf(pemKey.data(), static_cast<int>(pemKey.size())));
  if (bio == nullptr) {
    PrintToConsole("Error 0x00AE07: Cannot load key to buffer\n");
    return -1;
  }
  const RsaPtr key = ReadRsaPrivateKey(bio.get());
  if (key == nullptr) {
    PrintToConsole("Error 0x00AE08: Cannot read the private key\n");
    return -1;
  }
  // The key is read anew for each envelope, so that no copy of it stays in memory between two.
  UseKeptBlinding(key.get());
  std::optional<Bytes> opened =
      OpenBlock(key.get(), ugs::Base64Decode(std::string_view(text).substr(0, length)));
  if (!opened) {
    PrintToConsole("Envelope Error 0x00AE09: Failed to decrypt the file info\n");
    return -1;
  }
  out = std::move(*opened);
  return static_cast<std::int32_t>(out.size());
}

Bytes AesCbcDecrypt(const Bytes& key, std::string_view iv, std::string_view ciphertext) {
  const EVP_CIPHER* cipher = CbcCipher(key.size());
  const ugs::CipherContextPtr context(EVP_CIPHER_CTX_new());
  if (cipher == nullptr || context == nullptr) return {};
  std::array<unsigned char, kAesBlock> vector{};
  std::copy_n(iv.begin(), std::min(iv.size(), vector.size()), vector.begin());
  // Without padding OpenSSL holds no block back and judges none: the caller cuts the text at its last brace.
  if (EVP_DecryptInit_ex2(context.get(), cipher, key.data(), vector.data(), nullptr) != 1 ||
      EVP_CIPHER_CTX_set_padding(context.get(), 0) != 1) {
    return {};
  }
  const std::size_t wholeBlocks = ciphertext.size() / kAesBlock * kAesBlock;
  Bytes output(ciphertext.size());
  if (!DecryptBlocks(context.get(), ciphertext.substr(0, wholeBlocks), output.data())) return {};
  if (wholeBlocks < ciphertext.size()) {
    std::array<char, kAesBlock> input{};
    std::ranges::copy(ciphertext.substr(wholeBlocks), input.begin());
    std::array<unsigned char, kAesBlock> block{};
    const ugs::WipeOnExit wipe(block);
    if (!DecryptBlocks(context.get(), {input.data(), input.size()}, block.data())) return {};
    std::copy_n(block.begin(), ciphertext.size() - wholeBlocks,
                output.begin() + static_cast<std::ptrdiff_t>(wholeBlocks));
  }
  return output;
}

void ClearCryptoErrors() {
  ERR_clear_error();
}
