// SPDX-License-Identifier: Apache-2.0
#include "package-check.h"

#include <cerrno>

#include "device-policy.h"
#include "failure.h"
#include "system-error.h"

namespace fwdownload {
namespace {

using fwpackage::Kind;
using fwpackage::SignatureReport;
using fwpackage::Verdict;

struct Refusal {
  Verdict verdict;
  Reason reason;
};

// All others are not trusted.
constexpr Refusal kRefusals[] = {
    {Verdict::NoTrailer, Reason::Unsigned},
    {Verdict::TooShort, Reason::Unsigned},
    {Verdict::TooOld, Reason::TooOld},
    {Verdict::UnusableList, Reason::UnusableLists},
    {Verdict::UnusableMinimum, Reason::UnusableLists},
    {Verdict::Unreadable, Reason::FileSystem},
};

Reason reasonOf(Verdict verdict) {
  for (const Refusal& refusal : kRefusals) {
    if (refusal.verdict == verdict) {
      return refusal.reason;
    }
  }
  return Reason::NotTrusted;
}

}  // namespace

SignatureReport checkPackage(int file, const std::string& package, const Configuration& configuration) {
  const fwpackage::Trust trust = fwpackage::trustOfDevice();
  const SignatureReport report =
      fwpackage::checkSignature(file, trust, fwpackage::wantedOnDevice(Kind::ExtensionPackage, package));
  if (report.verdict == Verdict::Valid) {
    return report;
  }
  const Reason reason = reasonOf(report.verdict);
  if (reason == Reason::Unsigned && configuration.allowUnsigned) {
    return report;
  }
  throw Failure(reason,
                std::string("The package is refused: ") + fwpackage::infoOf(report.verdict).sentence + ".");
}

void raiseMinimumVersion(const SignatureReport& report) {
  if (report.verdict != Verdict::Valid) {
    return;
  }
  if (const int error = fwpackage::noteApplied(report); error != 0) {
    const bool denied = error == EACCES || error == EPERM || error == EROFS;
    throw Failure(denied ? Reason::NotPermitted : Reason::FileSystem,
                  "The package's minimum version " + report.trailer.statements.minimumVersion +
                      " cannot be noted in " + fwpackage::kMinimumVersionDirectory + ": " +
                      base::errnoText(error) + ".");
  }
}

}  // namespace fwdownload
