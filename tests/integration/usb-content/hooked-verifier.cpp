// SPDX-License-Identifier: Apache-2.0
// The real verification library, with a word to the test before and after each call.
#include <dlfcn.h>

#include "package-verifier.h"

#define ENTRY_POINT extern "C" __attribute__((visibility("default")))

extern "C" void verifierReached();

namespace {

template <typename Function>
Function* real(const char* name) {
  static void* const kLibrary = dlopen(VERIFIER_LIBRARY, RTLD_NOW);
  return reinterpret_cast<Function*>(dlsym(kLibrary, name));
}

class Reached {
 public:
  Reached() { verifierReached(); }
  ~Reached() { verifierReached(); }
};

}  // namespace

ENTRY_POINT int verifyFile(int reserved, const char* filePath, const char* caller) {
  const Reached reached;
  return real<decltype(verifyFile)>("verifyFile")(reserved, filePath, caller);
}

ENTRY_POINT PackageContentCheck* beginContentCheck(const char* filePath, int descriptor) {
  const Reached reached;
  return real<decltype(beginContentCheck)>("beginContentCheck")(filePath, descriptor);
}

ENTRY_POINT void addCheckedContent(PackageContentCheck* check, const unsigned char* bytes, size_t size) {
  const Reached reached;
  real<decltype(addCheckedContent)>("addCheckedContent")(check, bytes, size);
}

ENTRY_POINT int endContentCheck(PackageContentCheck* check) {
  const Reached reached;
  return real<decltype(endContentCheck)>("endContentCheck")(check);
}

ENTRY_POINT void releaseContentCheck(PackageContentCheck* check) {
  real<decltype(releaseContentCheck)>("releaseContentCheck")(check);
}
