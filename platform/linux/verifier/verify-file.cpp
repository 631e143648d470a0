// The platform's verification library, /usr/lib/libkZAQUser.so: says whether a USB
// package is what its name says, signed with a key that the platform knows.
#include <openssl/err.h>

#include <exception>

#include "os-release.h"
#include "package-signature.h"
#include "public-keys.h"

namespace {

bool isWanted(const char* filePath) {
  fwpackage::Expectation expected;
  expected.name = fwpackage::nameFromPath(filePath);
  expected.model = fwplatform::ReadSetModel();
  const fwpackage::Trust trust = fwpackage::trustIn(fwpackage::keyDirectory);
  return fwpackage::checkSignature(filePath, trust, expected).verdict == fwpackage::Verdict::Valid;
}

}  // namespace

// Non-zero when filePath is signed for the component that its name says and for this
// set, 0 when it must be refused; whatever goes wrong refuses it. Safe from any thread.
// The other parameters belong to the interface.
extern "C" __attribute__((visibility("default"))) int verifyFile(int /*reserved*/, const char* filePath,
                                                                 const char* /*caller*/) {
  if (filePath == nullptr) {
    return 0;
  }
  bool valid = false;
  ERR_set_mark();  // the caller may use OpenSSL too and look at its error queue
  try {
    valid = isWanted(filePath);
  } catch (const std::exception&) {
    valid = false;
  }
  ERR_pop_to_mark();
  return valid ? 1 : 0;
}
