// SPDX-License-Identifier: Apache-2.0
#include "own-rights.h"

#include <linux/capability.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>

namespace {

constexpr int kNeeded[] = {CAP_SYS_ADMIN, CAP_MKNOD, CAP_DAC_READ_SEARCH};

std::uint64_t neededMask() {
  std::uint64_t mask = 0;
  for (const int capability : kNeeded) {
    mask |= std::uint64_t{1} << static_cast<unsigned>(capability);
  }
  return mask;
}

// What a program that it starts can't get back.
int limitBoundingSet() {
  for (int capability = 0; capability < 64; ++capability) {
    const bool needed = (neededMask() >> static_cast<unsigned>(capability) & 1U) != 0;
    const bool there = !needed && prctl(PR_CAPBSET_READ, capability) == 1;
    // Without the right to drop them, the promise of no new ones has to do.
    if (there && prctl(PR_CAPBSET_DROP, capability) != 0 && errno != EPERM) {
      return errno;
    }
  }
  return 0;
}

int limitCapabilities() {
  __user_cap_header_struct header = {_LINUX_CAPABILITY_VERSION_3, 0};
  __user_cap_data_struct sets[_LINUX_CAPABILITY_U32S_3] = {};
  if (syscall(SYS_capget, &header, sets) != 0) {
    return errno;
  }
  for (unsigned i = 0; i < _LINUX_CAPABILITY_U32S_3; ++i) {
    sets[i].permitted &= static_cast<std::uint32_t>(neededMask() >> 32 * i);
    sets[i].effective = sets[i].permitted;
    sets[i].inheritable = 0;
  }
  return syscall(SYS_capset, &header, sets) == 0 ? 0 : errno;
}

}  // namespace

int giveUpOtherRights() {
  if (prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0) {
    return errno;
  }
  if (const int error = limitBoundingSet(); error != 0) {
    return error;
  }
  return limitCapabilities();
}
