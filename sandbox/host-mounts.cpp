// SPDX-License-Identifier: Apache-2.0
#include "host-mounts.h"

#include <fcntl.h>
#include <sys/mount.h>

#include "file-descriptor.h"
#include "system-error.h"

namespace sandbox {
// Read-only before it is anywhere to be seen. A bind mount would have to be changed
// afterwards, mount by mount.
void showReadOnly(const std::string& source, const std::string& target) {
  const base::FileDescriptor copy(
      open_tree(AT_FDCWD, source.c_str(), OPEN_TREE_CLONE | OPEN_TREE_CLOEXEC | AT_RECURSIVE));
  if (!copy) {
    base::throwErrno("cannot show " + source + " in the device");
  }
  mount_attr readOnly = {};
  readOnly.attr_set = MOUNT_ATTR_RDONLY;
  if (mount_setattr(copy.get(), "", AT_EMPTY_PATH | AT_RECURSIVE, &readOnly, sizeof readOnly) != 0) {
    base::throwErrno("cannot protect " + source + " from programs on the device, which needs Linux 5.12");
  }
  if (move_mount(copy.get(), "", AT_FDCWD, target.c_str(), MOVE_MOUNT_F_EMPTY_PATH | MOVE_MOUNT_T_SYMLINKS) !=
      0) {
    base::throwErrno("cannot show " + source + " in the device at " + target);
  }
}

void showWritable(const std::string& source, const std::string& target) {
  if (mount(source.c_str(), target.c_str(), "none", MS_BIND | MS_REC, nullptr) != 0) {
    base::throwErrno("cannot put " + target + " in place in the device");
  }
}

}  // namespace sandbox
