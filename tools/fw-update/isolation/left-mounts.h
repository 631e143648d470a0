// The extension packages that a command which died has left mounted.
#ifndef FW_UPDATE_TOOL_LEFT_MOUNTS_H
#define FW_UPDATE_TOOL_LEFT_MOUNTS_H

#include <set>
#include <string>
#include <vector>

#include "library/library-log.h"

namespace tool {

// The directories below the place of extension packages that have something mounted.
std::set<std::string> mountedPackages();

// Those of them that the command mounted, as its log tells, and that were not mounted
// before it.
std::vector<std::string> leftMounts(const LogMessages& log, const std::set<std::string>& before);

}  // namespace tool

#endif
