// Decrypts with every length that a peer can choose, each buffer ending where a page without access begins:
// the sanitizers do not see what OpenSSL's assembly reads and writes.

#include <sys/mman.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <new>
#include <vector>

#include "Crypto.h"

namespace {

constexpr std::size_t kPage = 4096;
constexpr std::size_t kSlots = 32;

// Slots of one page, a page without access behind each.
class GuardedHeap {
 public:
  GuardedHeap() {
    void* memory = mmap(nullptr, 2 * kPage * kSlots, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED) std::abort();
    start_ = static_cast<char*>(memory);
    for (std::size_t i = 0; i < kSlots; ++i) mprotect(start_ + 2 * kPage * i, kPage, PROT_READ | PROT_WRITE);
  }
  void* Take(std::size_t size) {
    const auto slot = std::find(used_, used_ + kSlots, false);
    if (size > kPage || slot == used_ + kSlots) return nullptr;
    *slot = true;
    return start_ + 2 * kPage * static_cast<std::size_t>(slot - used_) + kPage - size;
  }
  bool Give(void* data) {
    const auto offset = static_cast<std::size_t>(static_cast<char*>(data) - start_);
    if (static_cast<char*>(data) < start_ || offset > 2 * kPage * kSlots) return false;
    // An allocation of no bytes begins at the guard page itself.
    used_[(offset - (offset % (2 * kPage) == kPage ? 1 : 0)) / (2 * kPage)] = false;
    return true;
  }

 private:
  char* start_;
  bool used_[kSlots] = {};
};
GuardedHeap* heap = nullptr;  // null outside the trial

}  // namespace

// NOLINTBEGIN(cppcoreguidelines-no-malloc, cppcoreguidelines-owning-memory): these are the allocator.
void* operator new(std::size_t size) {
  void* memory = heap == nullptr ? nullptr : heap->Take(size);
  if (memory == nullptr) memory = std::malloc(size);
  if (memory == nullptr) throw std::bad_alloc();
  return memory;
}
void operator delete(void* memory) noexcept {
  if (heap == nullptr || !heap->Give(memory)) std::free(memory);
}
void operator delete(void* memory, std::size_t /*size*/) noexcept {
  operator delete(memory);
}
// NOLINTEND(cppcoreguidelines-no-malloc, cppcoreguidelines-owning-memory)

int main() {
  GuardedHeap guarded;
  heap = &guarded;
  long decrypted = 0;
  for (std::size_t keyLength = 0; keyLength <= 300; ++keyLength) {
    const Bytes key(keyLength, 'k');
    const bool usable = keyLength == 16 || keyLength == 24 || keyLength == 32;
    for (std::size_t ivLength = 0; ivLength <= 40; ++ivLength) {
      const std::vector<char> iv(ivLength, 'i');
      for (std::size_t length = 0; length <= 80; ++length) {
        const std::vector<char> text(length, 't');
        const Bytes plain = AesCbcDecrypt(key, {iv.data(), iv.size()}, {text.data(), text.size()});
        if (plain.size() != (usable ? length : 0)) return 1;
        ++decrypted;
      }
    }
  }
  heap = nullptr;
  std::printf("%ld combinations of lengths\n", decrypted);
}
