// SPDX-License-Identifier: Apache-2.0
// Versions of firmware: decimal numbers separated by dots, in any number and of
// any length. "1.10" is newer than "1.9", "1.2" is the same as "1.2.0", and
// "0000" is version zero. Plain functions; safe from any thread.
#ifndef MODULES_COMMON_DOTTED_VERSION_H
#define MODULES_COMMON_DOTTED_VERSION_H

#include <string_view>

namespace fwcomponent {

bool isVersion(std::string_view text);

// Below, equal to or above 0 when left is older than, the same as or newer than
// right. Both must be versions.
int compareVersions(std::string_view left, std::string_view right);

}  // namespace fwcomponent

#endif
