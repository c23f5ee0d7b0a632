#include "Redirected.h"

#include <malloc.h>
#include <netdb.h>
#include <openssl/bn.h>
#include <openssl/crypto.h>

#include <cstdlib>
#include <ctime>
#include <mutex>
#include <thread>
#include <utility>

namespace {

std::mutex mutex;  // guards the next two
std::vector<std::string> wiped;
std::vector<unsigned> seeds;

const std::thread::id testThread = std::this_thread::get_id();

void NoteWiped(const void* data, std::size_t size) {
  const std::scoped_lock lock(mutex);
  wiped.emplace_back(static_cast<const char*>(data), size);
}

}  // namespace

std::vector<std::string> TakeWiped() {
  const std::scoped_lock lock(mutex);
  return std::exchange(wiped, {});
}
std::vector<unsigned> TakeSeeds() {
  const std::scoped_lock lock(mutex);
  return std::exchange(seeds, {});
}

extern "C" {

decltype(OPENSSL_cleanse) RealCleanse __asm__("__real_OPENSSL_cleanse");
decltype(OPENSSL_cleanse) OnCleanse __asm__("__wrap_OPENSSL_cleanse");
void OnCleanse(void* data, std::size_t size) {
  NoteWiped(data, size);
  RealCleanse(data, size);
}

decltype(CRYPTO_secure_clear_free) RealClearFree __asm__("__real_CRYPTO_secure_clear_free");
decltype(CRYPTO_secure_clear_free) OnClearFree __asm__("__wrap_CRYPTO_secure_clear_free");
void OnClearFree(void* data, std::size_t size, const char* file, int line) {
  NoteWiped(data, size);
  RealClearFree(data, size, file, line);
}

decltype(BN_BLINDING_create_param) RealSetUp __asm__("__real_BN_BLINDING_create_param");
decltype(BN_BLINDING_create_param) OnSetUp __asm__("__wrap_BN_BLINDING_create_param");
BN_BLINDING* OnSetUp(BN_BLINDING* blinding, const BIGNUM* exponent, BIGNUM* modulus, BN_CTX* context,
                     decltype(&BN_mod_exp_mont) power, BN_MONT_CTX* montgomery) {
  ++blindingSetUps;
  return blindingFails ? nullptr : RealSetUp(blinding, exponent, modulus, context, power, montgomery);
}

decltype(BN_BLINDING_invert) RealInvert __asm__("__real_BN_BLINDING_invert");
decltype(BN_BLINDING_invert) OnInvert __asm__("__wrap_BN_BLINDING_invert");
int OnInvert(BIGNUM* number, BN_BLINDING* blinding, BN_CTX* context) {
  if (BN_get_flags(number, BN_FLG_CONSTTIME) != 0) ++unblindings;
  return RealInvert(number, blinding, context);
}

decltype(srand) RealSeed __asm__("__real_srand");
decltype(srand) OnSeed __asm__("__wrap_srand");
void OnSeed(unsigned seed) noexcept {
  const std::scoped_lock lock(mutex);
  seeds.push_back(seed);
  RealSeed(seed);
}

decltype(malloc_trim) RealTrim __asm__("__real_malloc_trim");
decltype(malloc_trim) OnTrim __asm__("__wrap_malloc_trim");
int OnTrim(std::size_t keep) noexcept {
  ++trims;
  return RealTrim(keep);
}

decltype(getaddrinfo) RealLookUp __asm__("__real_getaddrinfo");
decltype(getaddrinfo) OnLookUp __asm__("__wrap_getaddrinfo");
int OnLookUp(const char* host, const char* service, const addrinfo* hints, addrinfo** found) {
  ++stuckLookups;
  resolverIsStuck.wait(true);
  --stuckLookups;
  return RealLookUp(host, service, hints, found);
}

decltype(nanosleep) RealSleep __asm__("__real_nanosleep");
decltype(nanosleep) OnSleep __asm__("__wrap_nanosleep");
int OnSleep(const timespec* time, timespec* left) {
  return waitsAreInstant && std::this_thread::get_id() != testThread ? 0 : RealSleep(time, left);
}

}  // extern "C"
