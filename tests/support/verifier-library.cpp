// SPDX-License-Identifier: Apache-2.0
// A signature-verification library for tests, which asks the test program. Built without
// the optional entry points, with all or some of them, without its own, and with one that
// is null.
#include "package-verifier.h"

#define ENTRY_POINT extern "C" __attribute__((visibility("default")))

extern "C" {
int scripted_verifyFile(int reserved, const char* filePath, const char* caller);
PackageContentCheck* scripted_beginContentCheck(const char* filePath, int descriptor);
void scripted_addCheckedContent(PackageContentCheck* check, const unsigned char* bytes, size_t size);
int scripted_endContentCheck(PackageContentCheck* check);
void scripted_releaseContentCheck(PackageContentCheck* check);
int scripted_noteAppliedPackage(const PackageContentCheck* check);
}

#ifndef WITHOUT_verifyFile
ENTRY_POINT int verifyFile(int reserved, const char* filePath, const char* caller) {
  return scripted_verifyFile(reserved, filePath, caller);
}
#endif

#ifdef WITH_CONTENT_CHECK
ENTRY_POINT PackageContentCheck* beginContentCheck(const char* filePath, int descriptor) {
  return scripted_beginContentCheck(filePath, descriptor);
}

ENTRY_POINT void addCheckedContent(PackageContentCheck* check, const unsigned char* bytes, size_t size) {
  scripted_addCheckedContent(check, bytes, size);
}

ENTRY_POINT void releaseContentCheck(PackageContentCheck* check) {
  scripted_releaseContentCheck(check);
}

#ifndef WITHOUT_endContentCheck
ENTRY_POINT int endContentCheck(PackageContentCheck* check) {
  return scripted_endContentCheck(check);
}
#endif

#ifndef WITHOUT_noteAppliedPackage
ENTRY_POINT int noteAppliedPackage(const PackageContentCheck* check) {
  return scripted_noteAppliedPackage(check);
}
#endif
#endif
