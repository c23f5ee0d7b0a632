// The envelope is opened with OpenSSL's low-level RSA and AES calls, which OpenSSL 3 deprecates but keeps.
#define OPENSSL_SUPPRESS_DEPRECATED

#include "Envelope.h"

#include <openssl/aes.h>
#include <openssl/bio.h>
#include <openssl/crypto.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>

#include <algorithm>
#include <array>
#include <limits>
#include <memory>

#include "Logging.h"
#include "RsaBlinding.h"

namespace {

constexpr std::string_view kScrambleKey = "k4vqzle";

using BioPtr = std::unique_ptr<BIO, decltype(&BIO_free)>;
using RsaPtr = std::unique_ptr<RSA, decltype(&RSA_free)>;

constexpr std::array<int, 256> kBase64Values = [] {
  constexpr std::string_view alphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::array<int, 256> values{};
  values.fill(-1);
  for (std::size_t i = 0; i < alphabet.size(); ++i) {
    values[static_cast<unsigned char>(alphabet[i])] = static_cast<int>(i);
  }
  return values;
}();

void XorWithScrambleKey(std::string& text) {
  for (std::size_t i = 0; i < text.size(); ++i) {
    text[i] = static_cast<char>(text[i] ^ kScrambleKey[i % kScrambleKey.size()]);
  }
}

// What PEM_read_bio_RSAPrivateKey does for an unencrypted PKCS #1 key, without the decoder machinery that
// costs it more than the RSA operation itself, and without ever asking on the terminal for a password.
RsaPtr ReadRsaPrivateKey(BIO* bio) {
  char* name = nullptr;
  char* header = nullptr;
  unsigned char* der = nullptr;
  long length = 0;
  if (PEM_read_bio_ex(bio, &name, &header, &der, &length, PEM_FLAG_SECURE | PEM_FLAG_EAY_COMPATIBLE) != 1) {
    return {nullptr, RSA_free};
  }
  const bool isPlainPkcs1 = std::string_view(name) == PEM_STRING_RSA && *header == '\0';
  const unsigned char* cursor = der;
  RSA* key = isPlainPkcs1 ? d2i_RSAPrivateKey(nullptr, &cursor, length) : nullptr;
  OPENSSL_secure_free(name);
  OPENSSL_secure_free(header);
  OPENSSL_secure_clear_free(der, static_cast<std::size_t>(length));
  return {key, RSA_free};
}

}  // namespace

std::string Base64Decode(std::string_view text) {
  std::string bytes;
  bytes.reserve(text.size() / 4 * 3 + 2);
  std::uint32_t group = 0;
  int bits = 0;
  for (const char c : text) {
    const int value = kBase64Values[static_cast<unsigned char>(c)];
    if (value < 0) break;
    group = group << 6 | static_cast<std::uint32_t>(value);
    bits += 6;
    if (bits >= 8) {
      bits -= 8;
      bytes.push_back(static_cast<char>(group >> bits & 0xff));
    }
  }
  return bytes;
}

std::string ScrambleKey(std::string_view pem) {
  std::string text(pem);
  const WipeOnExit wipe(text);
  XorWithScrambleKey(text);
  std::string base64((text.size() + 2) / 3 * 4 + 1, '\0');  // EVP_EncodeBlock ends its output with a NUL
  EVP_EncodeBlock(reinterpret_cast<unsigned char*>(base64.data()),
                  reinterpret_cast<const unsigned char*>(text.data()), static_cast<int>(text.size()));
  base64.pop_back();
  return base64;
}

std::string UnscrambleKey(std::string_view storedText) {
  std::string pem = Base64Decode(storedText);
  XorWithScrambleKey(pem);
  return pem;
}

std::int32_t RsaPrivateDecrypt(const std::string& pemKey, const std::string& text, std::size_t length,
                               Bytes& out) {
  const BioPtr bio(BIO_new_mem_buf(pemKey.data(), static_cast<int>(pemKey.size())), BIO_free);
  if (bio == nullptr) {
    PrintToConsole("Error 0x00AE07: Cannot load key to buffer\n");
    return -1;
  }
  const RsaPtr key = ReadRsaPrivateKey(bio.get());
  if (key == nullptr) {
    PrintToConsole("Error 0x00AE08: Cannot read the private key\n");
    return -1;
  }
  UseKeptBlinding(key.get());
  Bytes opened(static_cast<std::size_t>(RSA_size(key.get())));
  const std::string block = Base64Decode(std::string_view(text).substr(0, length));
  const int openedLength = RSA_private_decrypt(static_cast<int>(block.size()),
                                               reinterpret_cast<const unsigned char*>(block.data()),
                                               opened.data(), key.get(), RSA_PKCS1_PADDING);
  if (openedLength < 0) {
    PrintToConsole("Envelope Error 0x00AE09: Failed to decrypt the file info\n");
    return -1;
  }
  opened.resize(static_cast<std::size_t>(openedLength));
  out = std::move(opened);
  return openedLength;
}

Bytes AesCbcDecrypt(const Bytes& key, std::string_view iv, std::string_view ciphertext) {
  // The schedule of a refused key must never be used: decrypting with one ends the process.
  if (key.size() != 16 && key.size() != 24 && key.size() != 32) return {};
  AES_KEY schedule;
  AES_set_decrypt_key(key.data(), static_cast<int>(key.size() * 8), &schedule);

  // The routine reads 16 bytes of IV and whole blocks of input whatever it is told.
  std::array<unsigned char, AES_BLOCK_SIZE> vector{};
  std::copy_n(iv.begin(), std::min(iv.size(), vector.size()), vector.begin());
  Bytes input((ciphertext.size() + AES_BLOCK_SIZE - 1) / AES_BLOCK_SIZE * AES_BLOCK_SIZE);
  std::copy(ciphertext.begin(), ciphertext.end(), input.begin());

  Bytes output(input.size());
  AES_cbc_encrypt(input.data(), output.data(), input.size(), &schedule, vector.data(), AES_DECRYPT);
  WipeMemory(&schedule, sizeof schedule);
  output.resize(ciphertext.size());
  return output;
}

void ClearCryptoErrors() {
  ERR_clear_error();
}

void WipeMemory(void* data, std::size_t size) {
  OPENSSL_cleanse(data, size);
}
