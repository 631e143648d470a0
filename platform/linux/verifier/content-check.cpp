// SPDX-License-Identifier: Apache-2.0
// The verification library's check of what was read of a package.
#include <cerrno>
#include <exception>
#include <memory>

#include "device-policy.h"
#include "judged-safely.h"
#include "package-verifier.h"
#include "read-package.h"

#define ENTRY_POINT extern "C" __attribute__((visibility("default")))

struct PackageContentCheck {
  PackageContentCheck(const char* filePath, int descriptor)
      : package(descriptor, fwpackage::trustOfDevice(), fwpackage::wantedAt(filePath)) {}

  fwpackage::ReadPackage package;
  fwpackage::SignatureReport report;  // of the whole package, when it has ended
  bool failed = false;
};

ENTRY_POINT PackageContentCheck* beginContentCheck(const char* filePath, int descriptor) {
  std::unique_ptr<PackageContentCheck> check;
  fwpackage::judgedSafely([&] {
    check = std::make_unique<PackageContentCheck>(filePath, descriptor);
    return true;
  });
  return check.release();
}

ENTRY_POINT void addCheckedContent(PackageContentCheck* check, const unsigned char* bytes, size_t size) {
  const bool added = fwpackage::judgedSafely([&] {
    check->package.add(bytes, size);
    return true;
  });
  check->failed = check->failed || !added;
}

ENTRY_POINT int endContentCheck(PackageContentCheck* check) {
  const bool valid = fwpackage::judgedSafely([check] {
    check->report = check->package.finish();
    return check->report.verdict == fwpackage::Verdict::Valid;
  });
  return valid && !check->failed ? 1 : 0;
}

ENTRY_POINT int noteAppliedPackage(const PackageContentCheck* check) {
  if (check->failed) {
    return -EINVAL;
  }
  try {
    return -fwpackage::noteApplied(check->report);
  } catch (const std::exception&) {
    return -ENOMEM;
  }
}

ENTRY_POINT void releaseContentCheck(PackageContentCheck* check) {
  delete check;
}
