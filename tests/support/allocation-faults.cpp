#include "allocation-faults.h"

#include <dlfcn.h>
#include <openssl/evp.h>

#include <cerrno>
#include <cstdlib>

namespace faults {

std::size_t failingMallocSize = 0;
std::size_t failingCallocSize = 0;
bool failCipherContexts = false;
int cipherContextsMade = 0;
int cipherContextsFreed = 0;

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
bool canFailAllocations() {
  return false;
}
#else
bool canFailAllocations() {
  return true;
}
#endif

}  // namespace faults

#define TAKES_PLACE extern "C" __attribute__((visibility("default")))

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)

// The C library's own names: looking the next malloc up would itself allocate.
extern "C" void* __libc_malloc(std::size_t size);
extern "C" void* __libc_calloc(std::size_t count, std::size_t size);

TAKES_PLACE void* malloc(std::size_t size) noexcept {
  if (size != 0 && size == faults::failingMallocSize) {
    errno = ENOMEM;
    return nullptr;
  }
  return __libc_malloc(size);
}

TAKES_PLACE void* calloc(std::size_t count, std::size_t size) noexcept {
  if (size != 0 && count * size != 0 && count * size == faults::failingCallocSize) {
    errno = ENOMEM;
    return nullptr;
  }
  return __libc_calloc(count, size);
}

#endif

TAKES_PLACE EVP_CIPHER_CTX* EVP_CIPHER_CTX_new() {
  static auto* const real = reinterpret_cast<EVP_CIPHER_CTX* (*)()>(dlsym(RTLD_NEXT, "EVP_CIPHER_CTX_new"));
  if (faults::failCipherContexts) {
    return nullptr;
  }
  ++faults::cipherContextsMade;
  return real();
}

TAKES_PLACE void EVP_CIPHER_CTX_free(EVP_CIPHER_CTX* context) {
  static auto* const real =
      reinterpret_cast<void (*)(EVP_CIPHER_CTX*)>(dlsym(RTLD_NEXT, "EVP_CIPHER_CTX_free"));
  ++faults::cipherContextsFreed;
  real(context);
}
