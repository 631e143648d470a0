// SPDX-License-Identifier: Apache-2.0
// A file system that is mounted, but not anywhere yet: it is gone with its descriptor.
// Needs the privileges; any thread.
#ifndef PLATFORM_LINUX_DETACHED_MOUNT_H
#define PLATFORM_LINUX_DETACHED_MOUNT_H

#include <string>
#include <vector>

#include "file-descriptor.h"
#include "safe-path.h"

namespace fwplatform {

struct DetachedMountRequest {
  const char* fileSystem;
  struct Option {
    const char* name;
    std::string value;  // "" for one without a value
  };
  std::vector<Option> options;
  unsigned attributes;  // MOUNT_ATTR_...
};

// Both give 0 or an errno value.

int mountDetached(const DetachedMountRequest& request, base::FileDescriptor& tree);

// Mounts it on the opened directory, which must still be what has that name in that
// parent directory afterwards. Else the mount is taken back: ESTALE.
int attach(const base::FileDescriptor& tree, const OpenedPath& directory, const std::string& parent,
           const std::string& name);

}  // namespace fwplatform

#endif
