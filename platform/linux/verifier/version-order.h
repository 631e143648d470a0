// SPDX-License-Identifier: Apache-2.0
// Which of two versions is older: one order over all texts, whatever a component's own
// versions look like. Plain function; any thread.
#ifndef FW_PLATFORM_VERSION_ORDER_H
#define FW_PLATFORM_VERSION_ORDER_H

#include <string_view>

namespace fwpackage {

// From left to right: runs of ASCII digits are compared as numbers of any length, other
// bytes as bytes, and a number with another byte as its digit would be. A text that
// ends where the other goes on is older. So 1.9 is older than 1.10, 1.10 than 1.10.1,
// and 1.0 and 1.00 are equal.
bool isOlder(std::string_view version, std::string_view than);

}  // namespace fwpackage

#endif
