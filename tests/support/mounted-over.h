// SPDX-License-Identifier: Apache-2.0
// A mount over a path of the device, for as long as this lives: what is there
// otherwise is hidden. For a process that has entered a device.
#ifndef TESTS_SUPPORT_MOUNTED_OVER_H
#define TESTS_SUPPORT_MOUNTED_OVER_H

#include <sys/mount.h>

#include <cerrno>
#include <string>
#include <system_error>
#include <utility>

class MountedOver {
 public:
  // Memory with these mount options, such as "mode=0755".
  static MountedOver memory(const std::string& path, const char* options, unsigned long flags = 0) {
    return MountedOver("none", path, "tmpfs", flags, options);
  }
  // Another file in this one's place.
  static MountedOver file(const std::string& path, const std::string& source) {
    return MountedOver(source, path, nullptr, MS_BIND, nullptr);
  }

  MountedOver(MountedOver&& other) noexcept : path_(std::exchange(other.path_, "")) {}
  MountedOver& operator=(MountedOver&&) = delete;
  ~MountedOver() {
    if (!path_.empty()) {
      umount2(path_.c_str(), MNT_DETACH);
    }
  }

 private:
  MountedOver(const std::string& source, const std::string& path, const char* type, unsigned long flags,
              const char* options)
      : path_(path) {
    if (mount(source.c_str(), path.c_str(), type, flags, options) != 0) {
      throw std::system_error(errno, std::generic_category(), "cannot mount over " + path);
    }
  }

  std::string path_;
};

#endif
