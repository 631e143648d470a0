// SPDX-License-Identifier: Apache-2.0
#include "fw-update-cipher.h"

#include <openssl/evp.h>
#include <sys/mman.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <memory>

unsigned char* cipher_buf_all = nullptr;

namespace {

constexpr std::size_t kReadSize = 10240;
constexpr int kTrailerSize = 534;

struct FreeBytes {
  void operator()(unsigned char* bytes) const { std::free(bytes); }
};

struct FreeContext {
  void operator()(EVP_CIPHER_CTX* context) const { EVP_CIPHER_CTX_free(context); }
};

// Belongs to the caller of aes_256_cbc_all.
unsigned char* newPlaintextBuffer(int size) {
  return static_cast<unsigned char*>(std::calloc(static_cast<std::size_t>(size), 1));
}

// Several threads may come here at once; whoever is last is remembered.
unsigned char* remember(unsigned char* buffer) {
  __atomic_store_n(&cipher_buf_all, buffer, __ATOMIC_RELEASE);
  return buffer;
}

// How much of a read of n bytes, the last of total so far, lies before the limit.
int bytesToFeed(std::int64_t n, std::int64_t total, std::int64_t limit) {
  const std::int64_t beyond = std::max<std::int64_t>(total - limit, 0);
  return static_cast<int>(std::max<std::int64_t>(n - beyond, 0));
}

// Asks for large pages where they lie wholly inside fresh memory. The first touch of
// each small page takes longer than reading and decrypting what goes there. A system
// that has none to give leaves the memory as it is.
void askForLargePages(unsigned char* bytes, std::size_t size) {
  constexpr std::uintptr_t kLargePage = std::uintptr_t{2} * 1024 * 1024;
  const auto address = reinterpret_cast<std::uintptr_t>(bytes);
  const std::uintptr_t begin = (address + kLargePage - 1) / kLargePage * kLargePage;
  const std::uintptr_t end = (address + size) / kLargePage * kLargePage;
  if (begin < end) {
    madvise(bytes + (begin - address), end - begin, MADV_HUGEPAGE);
  }
}

}  // namespace

unsigned char* aes_256_cbc_all(FILE* fp, const unsigned char* key, const unsigned char* iv, int enc,
                               int count, int& outLen) {
  outLen = 0;
  if (count < kTrailerSize) {
    return nullptr;
  }
  const std::unique_ptr<unsigned char, FreeBytes> input(static_cast<unsigned char*>(std::malloc(kReadSize)));
  if (!input) {
    return remember(nullptr);
  }
  std::unique_ptr<EVP_CIPHER_CTX, FreeContext> context(EVP_CIPHER_CTX_new());
  if (!context) {
    return remember(nullptr);
  }
  EVP_CipherInit(context.get(), EVP_aes_256_cbc(), key, iv, enc);
  EVP_CIPHER_CTX_block_size(context.get());  // the value is of no use here

  unsigned char* const output = remember(newPlaintextBuffer(count));
  if (output == nullptr) {
    static_cast<void>(context.release());  // not freed on this path, on purpose
    return nullptr;
  }
  askForLargePages(output, static_cast<std::size_t>(count));

  const std::int64_t limit = count - kTrailerSize;
  std::int64_t total = 0;
  int written = 0;
  std::size_t n = kReadSize;
  while (n == kReadSize) {
    n = std::fread(input.get(), 1, kReadSize, fp);
    total += static_cast<std::int64_t>(n);
    int produced = 0;
    EVP_CipherUpdate(context.get(), output + written, &produced, input.get(),
                     bytesToFeed(static_cast<std::int64_t>(n), total, limit));
    written += produced;
  }

  // The padding's verdict is not looked at, on purpose: a wrong key shows when the
  // module refuses the version block.
  int last = 0;
  EVP_CipherFinal(context.get(), output + written, &last);
  outLen = written + last;
  return output;
}
