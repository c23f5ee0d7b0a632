// Does the time of a private-key operation tell its result? As in dudect (Reparaz, Balasch, Verbauwhede,
// "Dude, is my code constant time?", 2017): blocks of two classes in random order, Welch's t of their times,
// all of them and the fastest 99, 95, 90, 75 and 50 %; the largest |t|. Above 4.5 the classes can be told
// apart. The last row shows what would be seen. Usage: rsa-timing [MEASUREMENTS], for each figure
// (60000), on a quiet machine.

#define OPENSSL_SUPPRESS_DEPRECATED  // the low-level calls, as the server makes them

#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/rand.h>
#include <openssl/rsa.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cmath>
#include <cstddef>
#include <cstdio>
#include <exception>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include "OpenSsl.h"
#include "RsaBlinding.h"

namespace {

using RsaPtr = ugs::OpenSslPtr<RSA, RSA_free>;
using Block = std::array<unsigned char, 256>;

struct Measurement {
  double nanoseconds;
  bool isNarrow;
};

RsaPtr MakeKey() {
  const ugs::OpenSslPtr<EVP_PKEY, EVP_PKEY_free> key(EVP_RSA_gen(8 * sizeof(Block)));
  if (key == nullptr) throw std::runtime_error("no key");
  return RsaPtr(EVP_PKEY_get1_RSA(key.get()));
}

// What opens to a random number of `width` bytes.
Block MakeBlock(RSA* key, std::size_t width) {
  Block number{};
  Block block{};
  RAND_bytes(number.data() + number.size() - width, static_cast<int>(width));
  if (RSA_public_encrypt(sizeof(number), number.data(), block.data(), key, RSA_NO_PADDING) < 0) {
    throw std::runtime_error("no block");
  }
  return block;
}

// A row of the table: a key, and how much longer the operation on a narrow result is made on purpose.
struct Row {
  const char* name;
  RSA* key;
  std::chrono::nanoseconds planted;
};

double TimeOf(RSA* key, const Block& block, std::chrono::nanoseconds planted) {
  using Clock = std::chrono::steady_clock;
  Block opened{};
  const auto begin = Clock::now();
  const int length = RSA_private_decrypt(sizeof(block), block.data(), opened.data(), key, RSA_NO_PADDING);
  for (const auto end = Clock::now() + planted; Clock::now() < end;) {
  }
  const std::chrono::duration<double, std::nano> taken = Clock::now() - begin;
  if (length < 0) throw std::runtime_error("a block does not open");
  return taken.count();
}

std::vector<Measurement> Measure(const Row& row, std::size_t narrowWidth, std::size_t number) {
  constexpr std::size_t pool = 500;
  std::array<std::vector<Block>, 2> blocks;
  for (std::size_t i = 0; i < pool; ++i) {
    blocks[0].push_back(MakeBlock(row.key, sizeof(Block) - 1));
    blocks[1].push_back(MakeBlock(row.key, narrowWidth));
  }
  std::mt19937 random(1);
  std::vector<Measurement> all;
  for (std::size_t i = 0; i < number; ++i) {
    const bool isNarrow = random() % 2 == 0;
    const Block block = blocks[isNarrow ? 1 : 0][random() % pool];
    all.push_back({TimeOf(row.key, block, isNarrow ? row.planted : std::chrono::nanoseconds(0)), isNarrow});
  }
  return all;
}

// Welch's t of the two classes among the measurements up to `end`.
double WelchT(std::vector<Measurement>::const_iterator begin, std::vector<Measurement>::const_iterator end) {
  std::array<double, 2> count{};
  std::array<double, 2> mean{};
  std::array<double, 2> squares{};
  for (; begin != end; ++begin) {
    const std::size_t one = begin->isNarrow ? 1 : 0;
    const double off = begin->nanoseconds - mean[one];
    mean[one] += off / ++count[one];
    squares[one] += off * (begin->nanoseconds - mean[one]);
  }
  const auto variance = [&](std::size_t one) {
    return squares[one] / (count[one] - 1) / count[one];
  };
  return std::abs(mean[0] - mean[1]) / std::sqrt(variance(0) + variance(1));
}

double LargestT(std::vector<Measurement> all) {
  std::ranges::sort(all, {}, &Measurement::nanoseconds);
  double largest = 0;
  for (const double share : {1.0, 0.99, 0.95, 0.9, 0.75, 0.5}) {
    const auto end = all.cbegin() + static_cast<std::ptrdiff_t>(share * static_cast<double>(all.size()));
    largest = std::max(largest, WelchT(all.cbegin(), end));
  }
  return largest;
}

}  // namespace

int main(int argc, char** argv) try {
  const std::size_t number = argc > 1 ? std::stoul(argv[1]) : 60000;
  const RsaPtr ours = MakeKey();
  const RsaPtr theirs(RSAPrivateKey_dup(ours.get()));
  const RsaPtr unblinded(RSAPrivateKey_dup(ours.get()));
  if (theirs == nullptr || unblinded == nullptr) throw std::runtime_error("no key");
  if (number < 1000) throw std::runtime_error("fewer than 1000 measurements tell nothing");
  UseKeptBlinding(ours.get());
  RSA_set_flags(unblinded.get(), RSA_FLAG_NO_BLINDING);
  std::printf("%s, %zu measurements of each\n%-30s %12s %12s\n", OpenSSL_version(OPENSSL_VERSION), number,
              "largest |t|, 255 bytes against", "8 bytes", "232 bytes");
  for (const Row& row : {Row{"the server's blinding", ours.get(), {}}, Row{"OpenSSL's own", theirs.get(), {}},
                         Row{"no blinding", unblinded.get(), {}},
                         Row{"the server's and 5 us", ours.get(), std::chrono::microseconds(5)}}) {
    std::printf("%-30s", row.name);
    for (const std::size_t width : {8UL, 232UL}) {
      std::printf(" %12.2f", LargestT(Measure(row, width, number)));
      std::fflush(stdout);
    }
    std::printf("\n");
    std::fflush(stdout);
  }
  return 0;
} catch (const std::exception& error) {
  std::fprintf(stderr, "rsa-timing: %s\n", error.what());
  return 1;
}
