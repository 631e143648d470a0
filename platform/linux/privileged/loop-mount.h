// SPDX-License-Identifier: Apache-2.0
// Mounts a squashfs image read-only through a loop device that detaches itself when it
// is unmounted. Needs the privileges; any thread.
#ifndef PLATFORM_LINUX_LOOP_MOUNT_H
#define PLATFORM_LINUX_LOOP_MOUNT_H

#include <string>

#include "file-descriptor.h"

namespace fwplatform {

// image: opened for reading; the mount shows this very file. attributes: MOUNT_ATTR_...
// 0, with the mount, which is nowhere yet, and the loop device's path; or an errno value.
int mountLoop(const base::FileDescriptor& image, unsigned attributes, base::FileDescriptor& tree,
              std::string& device);

}  // namespace fwplatform

#endif
