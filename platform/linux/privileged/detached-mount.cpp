// SPDX-License-Identifier: Apache-2.0
#include "privileged/detached-mount.h"

#include <sys/mount.h>

#include <cerrno>

namespace fwplatform {
namespace {

bool set(int context, const DetachedMountRequest::Option& option) {
  if (option.value.empty()) {
    return fsconfig(context, FSCONFIG_SET_FLAG, option.name, nullptr, 0) == 0;
  }
  return fsconfig(context, FSCONFIG_SET_STRING, option.name, option.value.c_str(), 0) == 0;
}

bool isAt(const base::FileDescriptor& tree, const std::string& parent, const std::string& name) {
  OpenedPath found;
  return openEntry(parent, name, found) == 0 && areOnOneMount(found.fd.get(), tree.get());
}

}  // namespace

int mountDetached(const DetachedMountRequest& request, base::FileDescriptor& tree) {
  const base::FileDescriptor context(fsopen(request.fileSystem, FSOPEN_CLOEXEC));
  if (!context) {
    return errno;
  }
  for (const DetachedMountRequest::Option& option : request.options) {
    if (!set(context.get(), option)) {
      return errno;
    }
  }
  if (fsconfig(context.get(), FSCONFIG_CMD_CREATE, nullptr, nullptr, 0) != 0) {
    return errno;
  }
  base::FileDescriptor mounted(fsmount(context.get(), FSMOUNT_CLOEXEC, request.attributes));
  if (!mounted) {
    return errno;
  }
  tree = std::move(mounted);
  return 0;
}

int attach(const base::FileDescriptor& tree, const OpenedPath& directory, const std::string& parent,
           const std::string& name) {
  if (move_mount(tree.get(), "", directory.fd.get(), "", MOVE_MOUNT_F_EMPTY_PATH | MOVE_MOUNT_T_EMPTY_PATH) !=
      0) {
    return errno;
  }
  // A directory that is mounted on can't be renamed, but it may have been until now.
  if (isAt(tree, parent, name)) {
    return 0;
  }
  umount2(tree.path().c_str(), MNT_DETACH);
  return ESTALE;
}

}  // namespace fwplatform
