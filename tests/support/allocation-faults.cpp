// SPDX-License-Identifier: Apache-2.0
#include "allocation-faults.h"

#include <dlfcn.h>
#include <openssl/evp.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>

namespace faults {

std::size_t failingMallocSize = 0;
std::size_t failingCallocSize = 0;
bool failCipherContexts = false;
std::atomic<int> cipherContextsMade{0};
std::atomic<int> cipherContextsFreed{0};

bool canFailAllocations() {
  void* (*volatile allocate)(std::size_t) = std::malloc;  // or the compiler leaves it out
  constexpr std::size_t kSize = 1234;
  failingMallocSize = kSize;
  void* const memory = allocate(kSize);
  failingMallocSize = 0;
  std::free(memory);
  return memory == nullptr;
}

}  // namespace faults

#define TAKES_PLACE extern "C" __attribute__((visibility("default")))

// The names of what is behind malloc and calloc: looking them up would itself allocate.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define BEHIND(function) __interceptor_##function
#else
#define BEHIND(function) __libc_##function
#endif
extern "C" void* BEHIND(malloc)(std::size_t size);
extern "C" void* BEHIND(calloc)(std::size_t count, std::size_t size);

// Called before a sanitizer is ready, too.
#define UNCHECKED __attribute__((no_sanitize("address", "thread", "undefined")))

TAKES_PLACE UNCHECKED void* malloc(std::size_t size) noexcept {
  if (size != 0 && size == faults::failingMallocSize) {
    errno = ENOMEM;
    return nullptr;
  }
  return BEHIND(malloc)(size);
}

TAKES_PLACE UNCHECKED void* calloc(std::size_t count, std::size_t size) noexcept {
  if (size != 0 && count * size != 0 && count * size == faults::failingCallocSize) {
    errno = ENOMEM;
    return nullptr;
  }
  return BEHIND(calloc)(count, size);
}

// Known from here, so that no checker calls the one a leak that is kept on purpose.
static std::atomic<EVP_CIPHER_CTX*> lastContext{nullptr};

TAKES_PLACE EVP_CIPHER_CTX* EVP_CIPHER_CTX_new() {
  static auto* const kReal = reinterpret_cast<EVP_CIPHER_CTX* (*)()>(dlsym(RTLD_NEXT, "EVP_CIPHER_CTX_new"));
  if (faults::failCipherContexts) {
    return nullptr;
  }
  ++faults::cipherContextsMade;
  return lastContext = kReal();
}

TAKES_PLACE void EVP_CIPHER_CTX_free(EVP_CIPHER_CTX* context) {
  static auto* const kReal =
      reinterpret_cast<void (*)(EVP_CIPHER_CTX*)>(dlsym(RTLD_NEXT, "EVP_CIPHER_CTX_free"));
  ++faults::cipherContextsFreed;
  kReal(context);
}
