#include "Envelope.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <optional>
#include <string>
#include <utility>

#include "Base64.h"
#include "Crypto.h"
#include "JsonEvents.h"
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
  std::string_view key;
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

// Takes the members of the outer document from the parser's events: of the rest of the text, which may be
// long, nothing is kept.
class MemberReader {
 public:
  bool Null() { return OnOther(); }
  bool Bool(bool /*value*/) { return OnOther(); }
  bool Int(int /*value*/) { return OnOther(); }
  bool Uint(unsigned /*value*/) { return OnOther(); }
  bool Int64(std::int64_t /*value*/) { return OnOther(); }
  bool Uint64(std::uint64_t /*value*/) { return OnOther(); }
  bool Double(double /*value*/) { return OnOther(); }
  bool String(const char* text, rapidjson::SizeType length, bool /*copy*/) {
    if (wanted_ != nullptr) wanted_->emplace(text, length);
    return OnOther();
  }
  bool Key(const char* text, rapidjson::SizeType length, bool /*copy*/) {
    const auto row = std::ranges::find(kMembers, std::string_view(text, length), &Member::key);
    if (depth_ != 1 || row == kMembers.end()) return true;
    const auto index = static_cast<std::size_t>(row - kMembers.begin());
    // Of several members with one name the first is the one, whatever it holds.
    if (!std::exchange(seen_[index], true)) wanted_ = &texts_[index];
    return true;
  }
  bool StartObject() {
    isObject_ = isObject_ || depth_ == 0;
    return OnStart();
  }
  bool EndObject(rapidjson::SizeType /*members*/) { return --depth_ >= 0; }
  bool StartArray() { return OnStart(); }
  bool EndArray(rapidjson::SizeType /*elements*/) { return --depth_ >= 0; }

  [[nodiscard]] bool IsObject() const { return isObject_; }
  // The text of each member that is a string, in the order of the rows.
  std::array<std::optional<std::string>, kMembers.size()>& Texts() { return texts_; }

 private:
  bool OnStart() {
    ++depth_;
    return OnOther();
  }
  // What was wanted has come, or something else has come in its place.
  bool OnOther() {
    wanted_ = nullptr;
    return true;
  }

  int depth_ = 0;
  bool isObject_ = false;
  std::optional<std::string>* wanted_ = nullptr;  // where the next value goes
  std::array<bool, kMembers.size()> seen_{};
  std::array<std::optional<std::string>, kMembers.size()> texts_;
};

bool ReadMembers(std::string_view text, Envelope& envelope) {
  MemberReader reader;
  if (!ReadJson(text, reader) || !reader.IsObject()) return false;
  for (std::size_t i = 0; i < kMembers.size(); ++i) {
    auto& member = reader.Texts()[i];
    if (!member) {
      kLog.Error("{}", kMembers[i].textWhenMissing);
      return false;
    }
    envelope.*kMembers[i].member = std::move(*member);
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
