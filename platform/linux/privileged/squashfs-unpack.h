// SPDX-License-Identifier: Apache-2.0
// The stand-in for a loop mount inside of a user namespace, where the kernel
// allows none. Any thread.
#ifndef PLATFORM_LINUX_SQUASHFS_UNPACK_H
#define PLATFORM_LINUX_SQUASHFS_UNPACK_H

#include <string>

#include "file-descriptor.h"

namespace fwplatform {

// True unless this process is in the machine's first user namespace.
bool isInUserNamespace();

struct UnpackLimits {
  // What the unpacked files may take of the memory: twice the size of the largest image
  // that is downloaded unless a set says otherwise.
  const char* size = "1g";
  const char* files = "65536";
  // Less than a client waits for its answer.
  int milliseconds = 25000;
};

// Unpacks a squashfs image, opened for reading, onto a tmpfs of its own that is nowhere
// yet, and makes that read-only. attributes: MOUNT_ATTR_...; 0 with the tmpfs, or an
// errno value with the failed step in reason; nothing stays behind then.
int unpackOnTmpfs(const base::FileDescriptor& image, unsigned attributes, const UnpackLimits& limits,
                  base::FileDescriptor& tree, std::string& reason);

}  // namespace fwplatform

#endif
