// SPDX-License-Identifier: Apache-2.0
// Why the verifier refuses a package, which the library itself does not say: looked up
// once more, with the verifier's own rules. Also its way past one of them. Plain
// functions.
#ifndef FW_UPDATE_TOOL_PACKAGE_REFUSAL_H
#define FW_UPDATE_TOOL_PACKAGE_REFUSAL_H

#include <cstddef>
#include <optional>
#include <string>

#include "outcomes.h"
#include "package-signature.h"

namespace tool {

// {package}: its path; {sentence}: the verdict's; {name}, {model}, {version}: what the
// package states; {minimum}: the set's minimum version.
struct Refusal {
  fwpackage::Verdict verdict;
  const char* message;
  const char* remedy;
};

struct RefusalTable {
  const Refusal* first;
  std::size_t count;

  const Refusal* begin() const { return first; }
  const Refusal* end() const { return first + count; }
};

// The verdicts that have words of their own.
RefusalTable refusalTable();

// Nothing when another verification library is installed, or when the package is not
// refused any more.
std::optional<Finding> whyRefused(const std::string& package);

// From now on packages older than the minimum version pass, in this process. The
// problem, when that cannot be.
std::optional<Finding> allowRollback();

}  // namespace tool

#endif
