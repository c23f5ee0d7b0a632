// OpenSSL 3 deprecates access to a key's method, but keeps it.
#define OPENSSL_SUPPRESS_DEPRECATED

#include "RsaBlinding.h"

#include <openssl/bn.h>
#include <openssl/rsa.h>

#include "OpenSsl.h"

namespace {

// Blinding for one modulus at a time: the keys of a server do not change. The steps are those of OpenSSL's
// RSA_setup_blinding, with a Montgomery context, which is what makes the unblinding take constant time.
class Blinding {
 public:
  // Owned by this object; nullptr if it could not be set up.
  BN_BLINDING* For(const RSA* key, BN_CTX* context) {
    const BIGNUM* modulus = nullptr;
    const BIGNUM* exponent = nullptr;
    RSA_get0_key(key, &modulus, &exponent, nullptr);
    if (blinding_ == nullptr || BN_cmp(modulus_.get(), modulus) != 0) SetUp(modulus, exponent, context);
    return blinding_.get();
  }

  // After a failure its two halves may no longer match.
  void Drop() { blinding_.reset(); }

 private:
  void SetUp(const BIGNUM* modulus, const BIGNUM* exponent, BN_CTX* context) {
    blinding_.reset();
    modulus_.reset(BN_dup(modulus));
    montgomery_.reset(BN_MONT_CTX_new());
    if (modulus_ == nullptr || montgomery_ == nullptr) return;
    BN_set_flags(modulus_.get(), BN_FLG_CONSTTIME);
    if (BN_MONT_CTX_set(montgomery_.get(), modulus_.get(), context) != 1) return;
    blinding_.reset(BN_BLINDING_create_param(nullptr, exponent, modulus_.get(), context, BN_mod_exp_mont,
                                             montgomery_.get()));
  }

  ugs::OpenSslPtr<BIGNUM, BN_free> modulus_;
  ugs::OpenSslPtr<BN_MONT_CTX, BN_MONT_CTX_free> montgomery_;  // used by blinding_
  ugs::OpenSslPtr<BN_BLINDING, BN_BLINDING_free> blinding_;
};

bool UnblindInConstantTime(BIGNUM* result, BN_BLINDING* blinding, BN_CTX* context) {
  BN_set_flags(result, BN_FLG_CONSTTIME);  // as OpenSSL does, lest the length of the result show in the time
  return BN_BLINDING_invert(result, blinding, context) == 1;
}

// Raises `input` to the private exponent with blinding around it. OpenSSL calls it after reading the block
// and before checking the padding, only for keys with CRT members.
int BlindedModExp(BIGNUM* result, const BIGNUM* input, RSA* key, BN_CTX* context) {
  thread_local Blinding kept;
  BN_CTX_start(context);
  BIGNUM* const blinded = BN_CTX_get(context);
  BN_BLINDING* const blinding = kept.For(key, context);
  const bool done = blinded != nullptr && blinding != nullptr && BN_copy(blinded, input) != nullptr &&
                    BN_BLINDING_convert(blinded, blinding, context) == 1 &&
                    RSA_meth_get_mod_exp(RSA_PKCS1_OpenSSL())(result, blinded, key, context) == 1 &&
                    UnblindInConstantTime(result, blinding, context);
  if (!done) kept.Drop();
  BN_CTX_end(context);
  return done ? 1 : 0;
}

bool HasCrtMembers(const RSA* key) {
  for (const auto get : {RSA_get0_p, RSA_get0_q, RSA_get0_dmp1, RSA_get0_dmq1, RSA_get0_iqmp}) {
    if (get(key) == nullptr) return false;
  }
  return true;
}

// OpenSSL's own method with our exponentiation; null if there was no memory for it.
const RSA_METHOD* BlindedMethod() {
  static const ugs::OpenSslPtr<RSA_METHOD, RSA_meth_free> method = [] {
    ugs::OpenSslPtr<RSA_METHOD, RSA_meth_free> copy(RSA_meth_dup(RSA_PKCS1_OpenSSL()));
    if (copy != nullptr) RSA_meth_set_mod_exp(copy.get(), BlindedModExp);
    return copy;
  }();
  return method.get();
}

}  // namespace

void UseKeptBlinding(RSA* key) {
  if (BlindedMethod() == nullptr || !HasCrtMembers(key)) return;  // OpenSSL's own blinding then
  RSA_set_method(key, BlindedMethod());
  RSA_set_flags(key, RSA_FLAG_NO_BLINDING);
}
