#include "package-check.h"

#include <cerrno>

#include "device-policy.h"
#include "errno-text.h"
#include "failure.h"

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
    {Verdict::NoTrailer, Reason::kUnsigned},
    {Verdict::TooShort, Reason::kUnsigned},
    {Verdict::TooOld, Reason::kTooOld},
    {Verdict::UnusableList, Reason::kUnusableLists},
    {Verdict::UnusableMinimum, Reason::kUnusableLists},
    {Verdict::Unreadable, Reason::kFileSystem},
};

Reason ReasonOf(Verdict verdict) {
  for (const Refusal& refusal : kRefusals) {
    if (refusal.verdict == verdict) {
      return refusal.reason;
    }
  }
  return Reason::kNotTrusted;
}

}  // namespace

SignatureReport CheckPackage(int file, const std::string& package, const Configuration& configuration) {
  const fwpackage::Trust trust = fwpackage::trustOfDevice();
  const SignatureReport report =
      fwpackage::checkSignature(file, trust, fwpackage::wantedOnDevice(Kind::ExtensionPackage, package));
  if (report.verdict == Verdict::Valid) {
    return report;
  }
  const Reason reason = ReasonOf(report.verdict);
  if (reason == Reason::kUnsigned && configuration.allowUnsigned) {
    return report;
  }
  throw Failure(reason,
                std::string("The package is refused: ") + fwpackage::infoOf(report.verdict).sentence + ".");
}

void RaiseMinimumVersion(const SignatureReport& report) {
  if (report.verdict != Verdict::Valid) {
    return;
  }
  if (const int error = fwpackage::noteApplied(report); error != 0) {
    const bool denied = error == EACCES || error == EPERM || error == EROFS;
    throw Failure(denied ? Reason::kNotPermitted : Reason::kFileSystem,
                  "The package's minimum version " + report.trailer.statements.minimumVersion +
                      " cannot be noted in " + fwpackage::minimumVersionDirectory + ": " +
                      fwplatform::ErrnoText(error) + ".");
  }
}

}  // namespace fwdownload
