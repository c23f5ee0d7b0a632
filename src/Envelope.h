// The steps that open a secure envelope, each by itself: base64, the stored private key, the RSA-wrapped AES
// key, the AES-CBC content. Of the server, only this and RsaBlinding touch OpenSSL. Every function here is
// thread-safe and takes any bytes without leaving its buffers; no key and no content is kept.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

using Bytes = std::vector<unsigned char>;

// Decodes standard base64 (RFC 4648, section 4) up to the first character outside its alphabet, "=" and line
// breaks included. A last group of two or three characters gives one or two bytes.
std::string Base64Decode(std::string_view text);

// The stored form of a private key: base64 of its PEM text XOR-ed with a repeating constant. This hides the
// key from a look at the binary and from nothing else. The caller wipes what UnscrambleKey returns.
std::string ScrambleKey(std::string_view pem);
std::string UnscrambleKey(std::string_view storedText);

// Opens the RSA block whose base64 are the first `length` characters of `text` with the private key in
// `pemKey` (unencrypted PKCS #1 PEM), PKCS #1 v1.5 padding. Returns the number of bytes put into `out`, or
// -1, with the reason on standard output.
std::int32_t RsaPrivateDecrypt(const std::string& pemKey, const std::string& text, std::size_t length,
                               Bytes& out);

// Decrypts `ciphertext` in CBC mode. The key's length chooses AES-128, -192 or -256; any other length gives
// no bytes at all. A short IV is filled up with zeroes, and so is an incomplete last block. The result is as
// long as `ciphertext`, padding included.
Bytes AesCbcDecrypt(const Bytes& key, std::string_view iv, std::string_view ciphertext);

// Drops what earlier calls left in this thread's OpenSSL error queue.
void ClearCryptoErrors();

void WipeMemory(void* data, std::size_t size);

// Wipes a string or vector of bytes when the scope ends. The buffer must not have been reallocated since the
// secret was put into it.
template <typename Buffer>
class WipeOnExit {
 public:
  explicit WipeOnExit(Buffer& buffer) : buffer_(buffer) {}
  ~WipeOnExit() { WipeMemory(buffer_.data(), buffer_.size()); }
  WipeOnExit(const WipeOnExit&) = delete;
  WipeOnExit& operator=(const WipeOnExit&) = delete;

 private:
  Buffer& buffer_;
};
