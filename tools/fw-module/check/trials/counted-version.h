// SPDX-License-Identifier: Apache-2.0
// Versions that are newer than another one, whatever its form. Plain functions.
#ifndef FW_MODULE_CHECK_TRIALS_COUNTED_VERSION_H
#define FW_MODULE_CHECK_TRIALS_COUNTED_VERSION_H

#include <string>
#include <vector>

namespace fwmodule {

// The text with its last number one greater: "1.9" gives "1.10"; "1.0.0" when it has no
// number.
std::string countedUp(const std::string& version);

// What may count as newer, the likeliest first: the last number one greater, or the first.
std::vector<std::string> newerVersions(const std::string& version);

}  // namespace fwmodule

#endif
