// Reads the calling process's mount table.
#ifndef SANDBOX_MOUNT_TABLE_H
#define SANDBOX_MOUNT_TABLE_H

#include <string>
#include <vector>

namespace sandbox {

// The mount points in the order they were mounted, a path once for each mount.
std::vector<std::string> mountPoints();

// Whether path is parent itself or lies below it. Both absolute, without a "/" at
// the end; parent "" is the root.
bool isWithin(const std::string& path, const std::string& parent);

// Whether path lies below parent and is not parent itself.
bool isBelow(const std::string& path, const std::string& parent);

}  // namespace sandbox

#endif
