// SPDX-License-Identifier: Apache-2.0
#include "list-signature.h"

#include <algorithm>

namespace fwpackage {

SignatureReport checkListSignature(std::string_view list, std::string_view signature, const Trust& trust) {
  if (signature.size() != kTrailerSize) {
    SignatureReport report;
    report.verdict = Verdict::NoTrailer;
    return report;
  }
  TrailerBytes trailer{};
  std::copy(signature.begin(), signature.end(), trailer.begin());
  Expectation expected;
  expected.kind = Kind::ReleaseList;
  expected.name = kListName;
  expected.anyModel = true;
  expected.rollbackAllowed = true;  // its number and the time when it was issued decide
  PackageCheck check(trust, expected);
  if (check.begin(trailer)) {
    check.add(reinterpret_cast<const unsigned char*>(list.data()), list.size());
  }
  return check.finish();
}

}  // namespace fwpackage
