// SPDX-License-Identifier: Apache-2.0
// The platform's verification library, /usr/lib/libkZAQUser.so: says whether a USB
// package is what its name says, signed with a key that the platform knows.
#include "device-policy.h"
#include "judged-safely.h"
#include "package-verifier.h"

#define ENTRY_POINT extern "C" __attribute__((visibility("default")))

// Non-zero when filePath is signed for the component that its name says and for this
// set, 0 when it must be refused; whatever goes wrong refuses it. Safe from any thread.
// The other parameters belong to the interface.
ENTRY_POINT int verifyFile(int /*reserved*/, const char* filePath, const char* /*caller*/) {
  const bool valid =
      filePath != nullptr && fwpackage::judgedSafely([filePath] {
        return fwpackage::checkSignature(filePath, fwpackage::trustOfDevice(), fwpackage::wantedAt(filePath))
                   .verdict == fwpackage::Verdict::Valid;
      });
  return valid ? 1 : 0;
}

ENTRY_POINT void allowPackageRollback(int allow) {
  fwpackage::allowRollback(allow != 0);
}
