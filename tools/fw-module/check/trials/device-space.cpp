// SPDX-License-Identifier: Apache-2.0
#include "device-space.h"

#include <sys/mount.h>
#include <sys/statvfs.h>

#include <string>

#include "system-error.h"

namespace fwmodule {
namespace {

// One of the directories that share the device's memory.
constexpr char kDirectory[] = "/var/lib/fw-components";

}  // namespace

std::uint64_t usedSpace() {
  struct statvfs status {};
  if (statvfs(kDirectory, &status) != 0) {
    base::throwErrno(kDirectory);
  }
  return std::uint64_t{status.f_blocks - status.f_bfree} * status.f_frsize;
}

void leaveNoSpace() {
  const std::string size = "size=" + std::to_string(usedSpace());
  if (mount(nullptr, kDirectory, nullptr, MS_REMOUNT, size.c_str()) != 0) {
    base::throwErrno("cannot limit the device's memory");
  }
}

}  // namespace fwmodule
