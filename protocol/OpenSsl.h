// Ownership of OpenSSL's objects. Included by sources only, so that OpenSSL's headers do not spread.
#pragma once

#include <openssl/bio.h>
#include <openssl/evp.h>

#include <memory>

namespace ugs {

// The deleter of an object that OpenSSL's function `Free` releases.
template <auto Free>
struct OpenSslDeleter {
  void operator()(auto* object) const { Free(object); }
};
template <typename Object, auto Free>
using OpenSslPtr = std::unique_ptr<Object, OpenSslDeleter<Free>>;

using BioPtr = OpenSslPtr<BIO, BIO_free>;
using PKeyPtr = OpenSslPtr<EVP_PKEY, EVP_PKEY_free>;
using CipherPtr = OpenSslPtr<EVP_CIPHER, EVP_CIPHER_free>;
using CipherContextPtr = OpenSslPtr<EVP_CIPHER_CTX, EVP_CIPHER_CTX_free>;

}  // namespace ugs
