#include "Secrets.h"

#include <openssl/crypto.h>

namespace ugs {

void Wipe(void* data, std::size_t size) {
  OPENSSL_cleanse(data, size);
}

}  // namespace ugs
