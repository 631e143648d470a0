// SPDX-License-Identifier: Apache-2.0
// Where this program lies, and what lies beside it.
#ifndef FW_DEVICE_TOOL_LOCATION_H
#define FW_DEVICE_TOOL_LOCATION_H

#include <string>
#include <vector>

namespace fwdevice {

// The directory of this program. Throws std::system_error.
std::string toolDirectory();

// Where the example modules that belong to a directory of programs may be, the build
// tree's place first.
std::vector<std::string> moduleDirectories(const std::string& programs);

// Where the verification library that belongs to them may be.
std::string verifierPath(const std::string& programs);

}  // namespace fwdevice

#endif
