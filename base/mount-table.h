// SPDX-License-Identifier: Apache-2.0
// Reads what is mounted, as the kernel tells it in /proc/PID/mountinfo, and says which
// paths lie where. Any thread.
#ifndef FW_BASE_MOUNT_TABLE_H
#define FW_BASE_MOUNT_TABLE_H

#include <string>
#include <vector>

namespace base {

struct Mount {
  std::string number;
  std::string parent;      // the number of the mount below it
  std::string fileSystem;  // "MAJOR:MINOR", one for each file system
  std::string root;        // what of the file system is shown
  std::string place;       // where
  std::string options;     // of this mount, parted by commas
  std::string type;        // such as "squashfs"
  std::string source;
  std::string fileSystemOptions;  // for all its mounts, parted by commas
};

// In the order they were mounted. process: a directory of /proc; none when it is gone.
std::vector<Mount> mounts(const std::string& process = "/proc/self");

// Their places: a path once for each mount.
std::vector<std::string> mountPoints();

// Whether the option stands among these.
bool hasOption(const std::string& options, const std::string& option);

// Whether path is parent itself or lies below it. Both absolute, without a "/" at
// the end; parent "" is the root.
bool isWithin(const std::string& path, const std::string& parent);

// Whether path lies below parent and is not parent itself.
bool isBelow(const std::string& path, const std::string& parent);

}  // namespace base

#endif
