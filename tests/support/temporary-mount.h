// SPDX-License-Identifier: Apache-2.0
// Mounts that last as long as these objects, in the device that a test runs in.
#ifndef TESTS_SUPPORT_TEMPORARY_MOUNT_H
#define TESTS_SUPPORT_TEMPORARY_MOUNT_H

#include <sys/mount.h>

#include <cerrno>
#include <string>
#include <system_error>
#include <utility>

class TemporaryMount {
 public:
  // An empty directory in memory over a directory.
  static TemporaryMount memory(const std::string& target, const char* options = nullptr) {
    return TemporaryMount("tmpfs", target, "tmpfs", 0, options);
  }
  // A file or directory over another.
  static TemporaryMount bind(const std::string& source, const std::string& target) {
    return TemporaryMount(source, target, nullptr, MS_BIND);
  }

  TemporaryMount(TemporaryMount&& other) noexcept : target_(std::exchange(other.target_, "")) {}
  TemporaryMount& operator=(TemporaryMount&&) = delete;
  ~TemporaryMount() {
    if (!target_.empty()) {
      umount2(target_.c_str(), MNT_DETACH);
    }
  }

 private:
  TemporaryMount(const std::string& source, const std::string& target, const char* type, unsigned long flags,
                 const char* options = nullptr)
      : target_(target) {
    if (mount(source.c_str(), target.c_str(), type, flags, options) != 0) {
      throw std::system_error(errno, std::generic_category(), "mounting on " + target);
    }
  }

  std::string target_;
};

#endif
