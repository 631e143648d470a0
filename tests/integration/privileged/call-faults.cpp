// SPDX-License-Identifier: Apache-2.0
#include "call-faults.h"

#include <fcntl.h>
#include <linux/loop.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>

namespace faults {

std::map<std::string, std::function<int()>> before;
std::map<std::string, std::function<void()>> after;
bool kernelKnowsNoMountRoots = false;
bool kernelKnowsNoMountIds = false;

namespace {

template <typename... Arguments>
int call(const char* name, long number, Arguments... arguments) {
  const auto first = before.find(name);
  const auto fault = first == before.end() ? nullptr : first->second;
  if (const int error = fault ? fault() : 0; error != 0) {
    errno = error;
    return -1;
  }
  const auto result = static_cast<int>(syscall(number, arguments...));
  if (const auto second = after.find(name); second != after.end()) {
    const int error = errno;
    const auto action = second->second;  // it may take itself out of the list
    action();
    errno = error;
  }
  return result;
}

const char* nameOf(unsigned long request) {
  return request == LOOP_CONFIGURE      ? "LOOP_CONFIGURE"
         : request == LOOP_CTL_GET_FREE ? "LOOP_CTL_GET_FREE"
                                        : "ioctl";
}

}  // namespace
}  // namespace faults

#define FAULTY extern "C" __attribute__((visibility("default")))

FAULTY int statx(int directory, const char* path, int flags, unsigned mask, struct statx* status) noexcept {
  const int result = faults::call("statx", SYS_statx, directory, path, flags, mask, status);
  if (result == 0 && faults::kernelKnowsNoMountRoots) {
    status->stx_attributes_mask &= ~static_cast<unsigned long long>(STATX_ATTR_MOUNT_ROOT);
    status->stx_attributes &= ~static_cast<unsigned long long>(STATX_ATTR_MOUNT_ROOT);
  }
  if (result == 0 && faults::kernelKnowsNoMountIds) {
    status->stx_mask &= ~static_cast<unsigned>(STATX_MNT_ID);
    status->stx_mnt_id = 0;
  }
  return result;
}

FAULTY int mknodat(int directory, const char* path, mode_t mode, dev_t device) noexcept {
  return faults::call("mknodat", SYS_mknodat, directory, path, mode, static_cast<unsigned>(device));
}

FAULTY int fsopen(const char* name, unsigned flags) noexcept {
  return faults::call("fsopen", SYS_fsopen, name, flags);
}

FAULTY int fsconfig(int context, unsigned command, const char* key, const void* value, int number) noexcept {
  return faults::call(command == FSCONFIG_CMD_CREATE ? "fsconfig create" : "fsconfig", SYS_fsconfig, context,
                      command, key, value, number);
}

FAULTY int fsmount(int context, unsigned flags, unsigned attributes) noexcept {
  return faults::call("fsmount", SYS_fsmount, context, flags, attributes);
}

FAULTY int mount_setattr(int directory, const char* path, unsigned flags, mount_attr* attributes,
                         size_t size) noexcept {
  return faults::call("mount_setattr", SYS_mount_setattr, directory, path, flags, attributes, size);
}

FAULTY int move_mount(int from, const char* fromPath, int to, const char* toPath, unsigned flags) noexcept {
  return faults::call("move_mount", SYS_move_mount, from, fromPath, to, toPath, flags);
}

FAULTY ssize_t send(int socket, const void* bytes, size_t size, int flags) {
  return faults::call("send", SYS_sendto, socket, bytes, size, flags, nullptr, 0);
}

FAULTY int umount2(const char* path, int flags) noexcept {
  return faults::call("umount2", SYS_umount2, path, flags);
}

FAULTY int ioctl(int descriptor, unsigned long request, ...) noexcept {
  va_list arguments;
  va_start(arguments, request);
  void* const argument = va_arg(arguments, void*);
  va_end(arguments);
  return faults::call(faults::nameOf(request), SYS_ioctl, descriptor, request, argument);
}
