// SPDX-License-Identifier: Apache-2.0
#include "isolation/left-mounts.h"

#include "device-paths.h"
#include "mount-table.h"

namespace tool {

std::set<std::string> mountedPackages() {
  std::set<std::string> directories;
  for (const std::string& place : base::mountPoints()) {
    if (place.rfind(fwpaths::kPackageMounts, 0) == 0) {
      directories.insert(place);
    }
  }
  return directories;
}

std::vector<std::string> leftMounts(const std::vector<std::string>& told,
                                    const std::set<std::string>& before) {
  const std::set<std::string> now = mountedPackages();
  std::set<std::string> left;
  for (const std::string& directory : told) {
    if (now.count(directory) != 0 && before.count(directory) == 0) {
      left.insert(directory);
    }
  }
  return {left.begin(), left.end()};
}

}  // namespace tool
