// The cryptography of an envelope: the RSA-wrapped AES key, and the AES-CBC content. Every function here is
// thread-safe and takes any bytes without leaving its buffers; no key and no content is kept.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

using Bytes = std::vector<unsigned char>;

// Opens the RSA block whose base64 are the first `length` characters of `text` with the private key in
// `pemKey` (unencrypted PKCS #1 PEM), PKCS #1 v1.5 padding. Returns the number of bytes put into `out`, or
// -1, with the reason on standard output.
std::int32_t RsaPrivateDecrypt(const std::string& pemKey, const std::string& text, std::size_t length,
                               Bytes& out);

// Decrypts `ciphertext` (less than 2 GiB) in CBC mode. The key's length chooses AES-128, -192 or -256; any
// other length gives no bytes at all. A short IV is filled up with zeroes, and so is an incomplete last
// block. The result is as long as `ciphertext`, padding included.
Bytes AesCbcDecrypt(const Bytes& key, std::string_view iv, std::string_view ciphertext);

// Drops what earlier calls left in this thread's OpenSSL error queue.
void ClearCryptoErrors();
