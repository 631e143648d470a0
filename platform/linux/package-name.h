// SPDX-License-Identifier: Apache-2.0
// The identifiers of extension packages. Any thread.
#ifndef PLATFORM_LINUX_PACKAGE_NAME_H
#define PLATFORM_LINUX_PACKAGE_NAME_H

#include <string>

namespace fwplatform {

// 1 to 127 letters and digits, which also makes it safe as part of a file name.
bool isPackageName(const std::string& name);

}  // namespace fwplatform

#endif
