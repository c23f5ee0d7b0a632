// The low-level calls make keys and plaintexts in a second way.
#define OPENSSL_SUPPRESS_DEPRECATED

#include "Crypto.h"

#include <gtest/gtest.h>
#include <openssl/aes.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>

#include <array>
#include <thread>

#include "Base64.h"
#include "OpenSsl.h"
#include "PrivateKey.h"
#include "Redirected.h"
#include "RsaBlinding.h"
#include "ScrambledKey.h"
#include "TestSupport.h"

namespace {

TEST(Base64Test, DecodesUpToTheFirstForeignCharacter) {
  using namespace std::string_view_literals;
  constexpr auto alphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  EXPECT_EQ(ugs::Base64Encode(ugs::Base64Decode(alphabet)), alphabet);
  const std::pair<std::string_view, std::string_view> cases[] = {
      {"", ""},           {"Zm9vYmFy", "foobar"},        {"Zm9vYmE=", "fooba"}, {"Zm9vYg==", "foob"},
      {"Zm9vYg", "foob"}, {"Zm9v\nYmFy", "foo"},         {"Zm9v YmFy", "foo"},  {"Zm9v=YmFy", "foo"},
      {"Zm9v-", "foo"},   {"Zm9v\0Ym"sv, "foo"},         {"=Zm9v", ""},         {"Z", ""},
      {"Zm9vY", "foo"},   {"AP8+/w==", "\0\xff>\xff"sv}, {"\xff\xfe", ""},      {"-_8=", ""}};
  for (const auto& [text, bytes] : cases) EXPECT_EQ(ugs::Base64Decode(text), bytes) << text;
}

struct KeyPair {
  explicit KeyPair(unsigned bits) : key(EVP_RSA_gen(bits)) {
    const ugs::BioPtr bio(BIO_new(BIO_s_mem()));
    PEM_write_bio_PrivateKey_traditional(bio.get(), key.get(), nullptr, nullptr, 0, nullptr, nullptr);
    char* text = nullptr;
    const auto size = static_cast<std::size_t>(BIO_get_mem_data(bio.get(), &text));
    pem.assign(text, size);
  }

  const ugs::PKeyPtr key;
  std::string pem;
};

class RsaPrivateDecryptTest : public testing::Test {
 protected:
  static std::string Open(const std::string& pem, const std::string& text) {
    Bytes out;
    const std::int32_t length = RsaPrivateDecrypt(pem, text, text.size(), out);
    return length == static_cast<std::int32_t>(out.size()) ? std::string(out.begin(), out.end()) : "refused";
  }

  void SetUp() override { testing::internal::CaptureStdout(); }
  void TearDown() override { EXPECT_EQ(testing::internal::GetCapturedStdout(), console); }

  std::string console;  // what is expected there
};

TEST_F(RsaPrivateDecryptTest, AKeyThatIsNotPlainPkcs1IsRefusedWithoutAQuestion) {
  const std::string pem = ugs::UnscrambleKey(ScrambledPrivateKey());
  std::string encrypted = pem;
  encrypted.insert(encrypted.find('\n') + 1,
                   "Proc-Type: 4,ENCRYPTED\nDEK-Info: AES-128-CBC,00112233445566778899AABBCCDDEEFF\n\n");
  std::string otherName = pem;
  for (std::size_t at; (at = otherName.find("RSA ")) != std::string::npos;) otherName.erase(at, 4);
  for (const std::string& text :
       {std::string(), std::string("no key"), pem.substr(0, 800), encrypted, otherName, PublicKeyPem()}) {
    EXPECT_EQ(Open(text, Wrap("text")), "refused") << text;
    console += "Error 0x00AE08: Cannot read the private key\n";
  }
}

// Blinding is kept per thread and modulus, and made anew after 32 operations: more than that of each.
TEST_F(RsaPrivateDecryptTest, KeptBlindingOpensBlocksForAnyKeyInAnyOrderOnAnyThread) {
  const std::array<KeyPair, 3> pairs{KeyPair(1024), KeyPair(2048), KeyPair(2048)};
  std::atomic<int> opened = 0;
  blindingSetUps = unblindings = 0;
  const auto open = [&](const KeyPair& pair, int i) {
    const std::string text = "text " + std::to_string(i);
    opened += Open(pair.pem, Wrap(text, pair.key.get())) == text ? 1 : 0;
  };
  const auto use = [&] {
    for (const KeyPair& pair : pairs) {
      for (int i = 0; i < 70; ++i) open(pair, i);
    }
    for (int i = 0; i < 30; ++i) open(pairs[static_cast<std::size_t>(i) % 3], i);
  };
  { const std::array<std::jthread, 2> threads{std::jthread(use), std::jthread(use)}; }
  EXPECT_EQ(opened, 2 * (3 * 70 + 30));
  EXPECT_EQ(unblindings, opened);
  EXPECT_EQ(blindingSetUps, 2 * (3 + 30));  // one for each change of the key
}

// 1 opens to 1, whatever the key. OpenSSL from 3.2 on would give random bytes for it, if asked in one step.
TEST_F(RsaPrivateDecryptTest, ABlockWithWrongPaddingIsRefused) {
  const KeyPair pair(1024);
  const std::string one = std::string(127, '\0') + '\1';
  for (const std::string& block : {one, one.substr(100), one + one, std::string()}) {
    EXPECT_EQ(Open(pair.pem, ugs::Base64Encode(block)), "refused");
    console += "Envelope Error 0x00AE09: Failed to decrypt the file info\n";
  }
}

TEST_F(RsaPrivateDecryptTest, WithoutBlindingNothingIsOpened) {
  const KeyPair pair(1024);
  blindingFails = true;
  EXPECT_EQ(Open(pair.pem, Wrap("text", pair.key.get())), "refused");
  blindingFails = false;
  EXPECT_EQ(Open(pair.pem, Wrap("text", pair.key.get())), "text");
  console = "Envelope Error 0x00AE09: Failed to decrypt the file info\n";
}

TEST(UseKeptBlindingTest, AKeyWithoutItsCrtMembersKeepsTheBlindingOfOpenSsl) {
  const ugs::OpenSslPtr<RSA, RSA_free> key(RSA_new());
  RSA_set0_factors(key.get(), BN_new(), BN_new());
  UseKeptBlinding(key.get());
  EXPECT_EQ(RSA_test_flags(key.get(), RSA_FLAG_NO_BLINDING), 0);
  RSA_set0_crt_params(key.get(), BN_new(), BN_new(), BN_new());
  UseKeptBlinding(key.get());
  EXPECT_NE(RSA_test_flags(key.get(), RSA_FLAG_NO_BLINDING), 0);
}

// What a missing byte of the IV or of the last block stands for is 0.
Bytes DecryptByHand(const Bytes& key, std::vector<char> iv, std::vector<char> ciphertext) {
  const std::size_t length = ciphertext.size();
  iv.resize(AES_BLOCK_SIZE);
  ciphertext.resize((length + AES_BLOCK_SIZE - 1) / AES_BLOCK_SIZE * AES_BLOCK_SIZE);
  Bytes plain(ciphertext.size());
  AES_KEY schedule;
  AES_set_decrypt_key(key.data(), static_cast<int>(key.size() * 8), &schedule);
  AES_cbc_encrypt(reinterpret_cast<const unsigned char*>(ciphertext.data()), plain.data(), plain.size(),
                  &schedule, reinterpret_cast<unsigned char*>(iv.data()), AES_DECRYPT);
  plain.resize(length);
  return plain;
}

TEST(AesCbcDecryptTest, EveryLengthIsDecryptedInFullAndNothingWithAnOddKey) {
  const std::string noise = PublicKeyPem();
  // Each buffer ends where its bytes do, so that valgrind sees what OpenSSL's assembly reads beyond them.
  const auto bytes = [&](std::size_t size) {
    return std::vector<char>(noise.begin(), noise.begin() + static_cast<std::ptrdiff_t>(size));
  };
  for (const std::size_t keyLength : {0U, 1U, 15U, 16U, 17U, 23U, 24U, 25U, 31U, 32U, 33U, 245U}) {
    const Bytes key(noise.rbegin(), noise.rbegin() + static_cast<std::ptrdiff_t>(keyLength));
    const bool usable = keyLength == 16 || keyLength == 24 || keyLength == 32;
    for (const std::size_t ivLength : {0U, 1U, 15U, 16U, 17U, 40U}) {
      for (std::size_t length = 0; length <= 50; ++length) {
        const std::vector<char> iv = bytes(ivLength);
        const std::vector<char> text = bytes(length);
        EXPECT_EQ(AesCbcDecrypt(key, {iv.data(), iv.size()}, {text.data(), text.size()}),
                  usable ? DecryptByHand(key, iv, text) : Bytes())
            << keyLength << " " << ivLength << " " << length;
      }
    }
  }
}

}  // namespace
