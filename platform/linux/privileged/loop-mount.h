// Mounts a squashfs image read-only through a loop device that detaches itself
// when it is unmounted. Needs the privileges; any thread.
#ifndef PLATFORM_LINUX_LOOP_MOUNT_H
#define PLATFORM_LINUX_LOOP_MOUNT_H

#include <string>

#include "privileged/safe-path.h"

namespace fwplatform {

struct LoopMountRequest {
  std::string imagePath;        // where the loop device is to find the image,
  const OpenedPath& image;      // and the file that it must be
  const OpenedPath& directory;  // where to mount
  bool noExec;
};

// 0, with the loop device's path in device, or an errno value: EPERM too when
// another file than the opened one is found at imagePath.
int MountLoop(const LoopMountRequest& request, std::string& device);

}  // namespace fwplatform

#endif
