#include "Keygen.h"

#include <fcntl.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <stdexcept>
#include <string>
#include <string_view>
#include <system_error>

#include "FileDescriptor.h"
#include "OpenSsl.h"
#include "ScrambledKey.h"
#include "Sealer.h"
#include "Secrets.h"
#include "UGSDefs.h"

namespace fs = std::filesystem;

namespace {

// About half of all RSA-2048 keys have a PKCS #1 PEM of this size (without its last newline), and only these
// give a scrambled text of 2232 characters, the room that a server has for it.
constexpr int kModulusBits = 2048;
constexpr std::size_t kPemSize = 1674;

using ugs::BioPtr;
using ugs::PKeyPtr;

// What `write` puts into a memory BIO, without the last newline.
template <typename Write>
std::string PemText(Write write) {
  const BioPtr bio(BIO_new(BIO_s_secmem()));
  char* data = nullptr;
  if (bio == nullptr || write(bio.get()) != 1) throw std::runtime_error("the key cannot be written as PEM");
  const long size = BIO_get_mem_data(bio.get(), &data);
  return {data, static_cast<std::size_t>(size) - 1};
}

std::string PrivatePem(EVP_PKEY* key) {
  return PemText([key](BIO* bio) {
    return PEM_write_bio_PrivateKey_traditional(bio, key, nullptr, nullptr, 0, nullptr, nullptr);
  });
}

std::string PublicPem(EVP_PKEY* key) {
  return PemText([key](BIO* bio) { return PEM_write_bio_PUBKEY(bio, key); }) + "\n";
}

// Two tries on average (see kPemSize).
PKeyPtr GenerateKey() {
  while (true) {
    PKeyPtr key(EVP_RSA_gen(kModulusBits));
    if (key == nullptr) throw std::runtime_error("OpenSSL could not make an RSA key");
    std::string pem = PrivatePem(key.get());
    const ugs::WipeOnExit wipe(pem);
    if (pem.size() == kPemSize) return key;
  }
}

// OpenSSL would ask on the terminal instead, and a build would wait there for ever.
int NotePasswordWanted(char* /*buffer*/, int /*size*/, int /*writing*/, void* wanted) {
  *static_cast<bool*>(wanted) = true;
  return -1;
}

PKeyPtr ReadKey(const fs::path& file) {
  const BioPtr bio(BIO_new_file(file.c_str(), "r"));
  if (bio == nullptr) throw std::runtime_error("cannot read " + file.string());
  bool passwordWanted = false;
  PKeyPtr key(PEM_read_bio_PrivateKey(bio.get(), nullptr, NotePasswordWanted, &passwordWanted));
  if (passwordWanted) {
    throw std::runtime_error(file.string() + " is encrypted; decrypt it first: openssl rsa -in " +
                             file.string() + " -out PLAIN.pem");
  }
  if (key == nullptr || EVP_PKEY_get_base_id(key.get()) != EVP_PKEY_RSA) {
    throw std::runtime_error(file.string() + " does not hold an RSA private key in PEM (PKCS #1 or PKCS #8)");
  }
  return key;
}

// What `run` makes of `input` with `key`, RSA with PKCS #1 v1.5 padding; nothing if it fails.
std::string Apply(EVP_PKEY* key, decltype(&EVP_PKEY_encrypt_init) init, decltype(&EVP_PKEY_encrypt) run,
                  std::string_view input) {
  const ugs::OpenSslPtr<EVP_PKEY_CTX, EVP_PKEY_CTX_free> context(EVP_PKEY_CTX_new(key, nullptr));
  std::string output(static_cast<std::size_t>(EVP_PKEY_get_size(key)), '\0');
  std::size_t length = output.size();
  if (context == nullptr || init(context.get()) != 1 ||
      EVP_PKEY_CTX_set_rsa_padding(context.get(), RSA_PKCS1_PADDING) != 1 ||
      run(context.get(), reinterpret_cast<unsigned char*>(output.data()), &length,
          reinterpret_cast<const unsigned char*>(input.data()), input.size()) != 1) {
    return {};
  }
  return output.substr(0, length);
}

// Reads both halves back from their texts, and opens with the one what the other seals.
bool IsPair(const std::string& scrambled, const std::string& publicPem) {
  std::string pem = ugs::UnscrambleKey(scrambled);
  const ugs::WipeOnExit wipe(pem);
  const BioPtr privateText(BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size())));
  const BioPtr publicText(BIO_new_mem_buf(publicPem.data(), static_cast<int>(publicPem.size())));
  const PKeyPtr privateKey(PEM_read_bio_PrivateKey(privateText.get(), nullptr, nullptr, nullptr));
  const PKeyPtr publicKey(PEM_read_bio_PUBKEY(publicText.get(), nullptr, nullptr, nullptr));
  const auto sealed = [&](std::string_view text) {
    return Apply(publicKey.get(), EVP_PKEY_encrypt_init, EVP_PKEY_encrypt, text);
  };
  return privateKey != nullptr && publicKey != nullptr &&
         Apply(privateKey.get(), EVP_PKEY_decrypt_init, EVP_PKEY_decrypt, sealed(UGSDefs::kGreeting)) ==
             UGSDefs::kGreeting;
}

// Never follows or replaces what is there (O_EXCL); nobody else can read a private key at any moment.
void CreateFile(const fs::path& file, mode_t mode, const std::string& content) {
  const FileDescriptor descriptor(open(file.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, mode),
                                  "cannot create " + file.string());
  if (fchmod(descriptor.Number(), mode) != 0 ||
      write(descriptor.Number(), content.data(), content.size()) != static_cast<ssize_t>(content.size()) ||
      fsync(descriptor.Number()) != 0) {
    const int error = errno;
    unlink(file.c_str());  // half a file would only stop the next try
    throw std::system_error(error, std::generic_category(), "cannot write " + file.string());
  }
}

}  // namespace

std::string MakeKeyPair(const fs::path& directory, const std::optional<fs::path>& from) {
  const fs::path privateFile = directory / "private.scrambled";
  const fs::path publicFile = directory / "public.pem";
  for (const fs::path& file : {privateFile, publicFile}) {
    if (fs::exists(file)) throw std::runtime_error(file.string() + " exists and will not be overwritten");
  }
  const PKeyPtr key = from ? ReadKey(*from) : GenerateKey();
  std::string pem = PrivatePem(key.get());
  const ugs::WipeOnExit wipe(pem);
  const std::string scrambled = ugs::ScrambleKey(pem);
  const std::string publicPem = PublicPem(key.get());
  if (!IsPair(scrambled, publicPem)) {
    throw std::runtime_error((from ? from->string() : "the new key") +
                             ": its two halves do not fit together");
  }

  fs::create_directories(directory);
  CreateFile(privateFile, 0600, scrambled);
  try {
    CreateFile(publicFile, 0644, publicPem);
  } catch (...) {
    fs::remove(privateFile);  // half a pair would only stop the next try
    throw;
  }
  if (!fs::exists(fs::symlink_status(directory / ".gitignore"))) {
    CreateFile(directory / ".gitignore", 0644, "/private.scrambled\n");
  }
  return ugs::Sealer(publicPem).Fingerprint();
}
