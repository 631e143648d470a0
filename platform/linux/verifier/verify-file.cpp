// The platform's verification library, /usr/lib/libkZAQUser.so: says whether a USB
// package is what its name says, signed with a key that the platform knows.
#include "os-release.h"
#include "package-signature.h"
#include "package-verifier.h"
#include "public-keys.h"
#include "wanted-package.h"

fwpackage::Expectation fwpackage::wantedAt(const std::string& filePath) {
  Expectation expected;
  expected.name = nameFromPath(filePath);
  expected.model = fwplatform::ReadSetModel();
  return expected;
}

// Non-zero when filePath is signed for the component that its name says and for this
// set, 0 when it must be refused; whatever goes wrong refuses it. Safe from any thread.
// The other parameters belong to the interface.
extern "C" __attribute__((visibility("default"))) int verifyFile(int /*reserved*/, const char* filePath,
                                                                 const char* /*caller*/) {
  const bool valid =
      filePath != nullptr && fwpackage::judgedSafely([filePath] {
        const fwpackage::Trust trust = fwpackage::trustIn(fwpackage::keyDirectory);
        return fwpackage::checkSignature(filePath, trust, fwpackage::wantedAt(filePath)).verdict ==
               fwpackage::Verdict::Valid;
      });
  return valid ? 1 : 0;
}
