// SPDX-License-Identifier: Apache-2.0
// The extension packages that a command which died has left mounted.
#ifndef FW_UPDATE_TOOL_LEFT_MOUNTS_H
#define FW_UPDATE_TOOL_LEFT_MOUNTS_H

#include <set>
#include <string>
#include <vector>

namespace tool {

// The directories below the place of extension packages that have something mounted.
std::set<std::string> mountedPackages();

// Those that the command mounted, as it told, that still are mounted, and were not before it.
std::vector<std::string> leftMounts(const std::vector<std::string>& told,
                                    const std::set<std::string>& before);

}  // namespace tool

#endif
