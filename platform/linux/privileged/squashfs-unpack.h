// The stand-in for a loop mount inside of a user namespace, where the kernel
// allows none. Any thread.
#ifndef PLATFORM_LINUX_SQUASHFS_UNPACK_H
#define PLATFORM_LINUX_SQUASHFS_UNPACK_H

#include <string>

#include "privileged/safe-path.h"

namespace fwplatform {

// True unless this process is in the machine's first user namespace.
bool IsInUserNamespace();

// Unpacks a squashfs image onto a tmpfs of its own and mounts that read-only on
// the directory, once it is whole. Unmounting it removes everything. 0, or an
// errno value with the failed step in reason; nothing stays behind then.
int UnpackOnTmpfs(const OpenedPath& image, const OpenedPath& directory, bool noExec, std::string& reason);

}  // namespace fwplatform

#endif
