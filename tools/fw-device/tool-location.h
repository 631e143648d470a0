// Where this program lies, and what lies beside it.
#ifndef FW_DEVICE_TOOL_LOCATION_H
#define FW_DEVICE_TOOL_LOCATION_H

#include <string>
#include <vector>

namespace fwdevice {

// The directory of this program. Throws std::system_error.
std::string toolDirectory();

// Where the example modules of this build may be, the build tree's place first.
std::vector<std::string> moduleDirectories();

// Where the verification library of this build may be.
std::string verifierPath();

}  // namespace fwdevice

#endif
