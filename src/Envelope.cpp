#include "Envelope.h"

#include <rapidjson/document.h>

#include <array>
#include <cstddef>
#include <string>

#include "Base64.h"
#include "Crypto.h"
#include "JsonReader.h"
#include "Logging.h"
#include "ScrambledKey.h"
#include "Secrets.h"
#include "UGSDefs.h"

namespace {

constexpr FunctionLog kLog("KorvaneControllerServer::DecryptData");

// The outer document: {"data1": wrapped key, "data2": IV, "data3": ciphertext}.
struct Envelope {
  std::string wrappedKey;  // each in base64
  std::string iv;
  std::string ciphertext;
};

struct Member {
  const char* key;
  std::string Envelope::*member;
  const char* textWhenMissing;
};
// In the order in which their absence is told.
constexpr std::array kMembers{
    Member{UGSDefs::kWrappedKeyMember, &Envelope::wrappedKey, "Error 0x00AE03: Missing content\n"},
    Member{UGSDefs::kIvMember, &Envelope::iv, "Error 0x00AE04: Missing content\n"},
    Member{UGSDefs::kCiphertextMember, &Envelope::ciphertext, "Error 0x00AE05: Missing content\n"},
};

// The length of `text` up to and including its last "}"; 0 without one.
template <typename Buffer>
std::size_t LengthToLastBrace(const Buffer& text) {
  return std::string_view(reinterpret_cast<const char*>(text.data()), text.size()).rfind('}') + 1;
}

bool ReadMembers(std::string_view text, Envelope& envelope) {
  rapidjson::Document document;
  if (!ParseJson(text, document) || !document.IsObject()) return false;
  for (const Member& row : kMembers) {
    const rapidjson::Value* value = FindMember(document, row.key);
    if (value == nullptr || !value->IsString()) {
      kLog.Error("{}", row.textWhenMissing);
      return false;
    }
    (envelope.*row.member).assign(value->GetString(), value->GetStringLength());
  }
  return true;
}

// The clear PEM text lives for this one call only.
bool OpenKey(const Envelope& envelope, std::string_view scrambledKey, Bytes& key) {
  std::string pem = ugs::UnscrambleKey(scrambledKey);
  const ugs::WipeOnExit wipe(pem);
  if (RsaPrivateDecrypt(pem, envelope.wrappedKey, envelope.wrappedKey.size(), key) >= 0) return true;
  kLog.Error("Error 0x00AE06: Decryption fail\n");
  return false;
}

}  // namespace

std::int32_t OpenEnvelope(std::string_view payload, std::string_view scrambledKey,
                          std::vector<char>& plaintext) {
  ClearCryptoErrors();
  std::string text = ugs::Base64Decode(payload);
  // What follows the last brace is padding, here and in the plaintext.
  text.resize(LengthToLastBrace(text));
  if (text.empty()) {
    kLog.Error("Received Invalid Content 0x316\n");
    return -1;
  }
  Envelope envelope;
  Bytes key;
  if (!ReadMembers(text, envelope) || !OpenKey(envelope, scrambledKey, key)) return -1;
  const ugs::WipeOnExit wipeKey(key);
  Bytes decrypted =
      AesCbcDecrypt(key, ugs::Base64Decode(envelope.iv), ugs::Base64Decode(envelope.ciphertext));
  const ugs::WipeOnExit wipeDecrypted(decrypted);
  // A wrong key or IV gives noise; without a brace it is refused here, with one by the parser of the
  // document.
  const std::size_t length = LengthToLastBrace(decrypted);
  plaintext.insert(plaintext.end(), decrypted.begin(),
                   decrypted.begin() + static_cast<std::ptrdiff_t>(length));
  return length == 0 ? -1 : static_cast<std::int32_t>(length);
}
