// SPDX-License-Identifier: Apache-2.0
// A lock of the kernel's own that keeps the device from sleeping, for devices
// without systemd-logind. The kernel gives it back after its time; a process that
// dies does not. Movable; not for sharing between threads.
#ifndef PLATFORM_LINUX_WAKE_LOCK_H
#define PLATFORM_LINUX_WAKE_LOCK_H

#include <string>

namespace fwplatform {

class WakeLock {
 public:
  WakeLock() = default;
  WakeLock(WakeLock&& other) noexcept;
  WakeLock& operator=(WakeLock&& other) noexcept;
  ~WakeLock() { release(); }

  // name: unique on the device, without blanks. 0, or a negative errno value:
  // -ENOENT when the kernel has no such locks.
  int take(const std::string& name, int timeoutMs);
  void release();

 private:
  std::string name_;  // empty: nothing is held
};

}  // namespace fwplatform

#endif
