// What the RSA step may hand on, of any length, is a key here: the result is what EVP gives where EVP accepts
// the same lengths. Input: lengths of key and IV, key, IV, ciphertext.

#include <openssl/evp.h>

#include <algorithm>
#include <memory>

#include "Crypto.h"
#include "Fuzz.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size < 2) return 0;
  std::string_view rest = AsText(data + 2, size - 2);
  const std::string_view keyText = rest.substr(0, data[0]);
  rest.remove_prefix(keyText.size());
  const std::string_view iv = rest.substr(0, data[1]);
  const std::string_view ciphertext = rest.substr(iv.size());
  const Bytes key(keyText.begin(), keyText.end());
  const Bytes plain = AesCbcDecrypt(key, iv, ciphertext);
  const bool usable = key.size() == 16 || key.size() == 24 || key.size() == 32;
  Require(plain.size() == (usable ? ciphertext.size() : 0));
  if (!usable || iv.size() < 16 || ciphertext.size() % 16 != 0) return 0;
  const EVP_CIPHER* cipher = key.size() == 16   ? EVP_aes_128_cbc()
                             : key.size() == 24 ? EVP_aes_192_cbc()
                                                : EVP_aes_256_cbc();
  const std::unique_ptr<EVP_CIPHER_CTX, decltype(&EVP_CIPHER_CTX_free)> context(EVP_CIPHER_CTX_new(),
                                                                                EVP_CIPHER_CTX_free);
  EVP_DecryptInit_ex(context.get(), cipher, nullptr, key.data(),
                     reinterpret_cast<const unsigned char*>(iv.data()));
  EVP_CIPHER_CTX_set_padding(context.get(), 0);
  Bytes expected(ciphertext.size() + 16);
  int length = 0;
  EVP_DecryptUpdate(context.get(), expected.data(), &length,
                    reinterpret_cast<const unsigned char*>(ciphertext.data()),
                    static_cast<int>(ciphertext.size()));
  Require(static_cast<std::size_t>(length) == plain.size() &&
          std::equal(plain.begin(), plain.end(), expected.begin()));
  return 0;
}
