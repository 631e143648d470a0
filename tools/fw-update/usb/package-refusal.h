// Why the verifier refuses a package, which the library itself does not say: looked up
// once more, with the verifier's own rules. Also its way past one of them. Plain
// functions.
#ifndef FW_UPDATE_TOOL_PACKAGE_REFUSAL_H
#define FW_UPDATE_TOOL_PACKAGE_REFUSAL_H

#include <optional>
#include <string>

#include "outcomes.h"

namespace tool {

// Nothing when another verification library is installed, or when the package is not
// refused any more.
std::optional<Finding> whyRefused(const std::string& package);

// From now on packages older than the minimum version pass, in this process. The
// problem, when that cannot be.
std::optional<Finding> allowRollback();

}  // namespace tool

#endif
