// SPDX-License-Identifier: Apache-2.0
#include "device-policy.h"

#include <atomic>
#include <cerrno>

#include "minimum-versions.h"
#include "os-release.h"
#include "public-keys.h"

namespace fwpackage {
namespace {

std::atomic<bool> rollbackAllowed{false};

}  // namespace

Trust trustOfDevice() {
  Trust trust = trustIn(kKeyDirectory);
  trust.minimumVersion = [](const std::string& name) {
    return readMinimumVersion(kMinimumVersionDirectory, name);
  };
  return trust;
}

Expectation wantedOnDevice(Kind kind, const std::string& name) {
  Expectation expected;
  expected.kind = kind;
  expected.name = name;
  expected.model = fwplatform::readSetModel();
  expected.rollbackAllowed = rollbackAllowed;
  return expected;
}

Expectation wantedAt(const std::string& filePath) {
  return wantedOnDevice(Kind::UsbPackage, nameFromPath(filePath));
}

void allowRollback(bool allow) {
  rollbackAllowed = allow;
}

int noteApplied(const SignatureReport& report) {
  if (report.verdict != Verdict::Valid) {
    return EINVAL;
  }
  return raiseMinimumVersion(kMinimumVersionDirectory, report.trailer.statements);
}

}  // namespace fwpackage
