// SPDX-License-Identifier: Apache-2.0
#include "power/wake-lock.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

#include "file-descriptor.h"

namespace fwplatform {
namespace {

constexpr char kLockFile[] = "/sys/power/wake_lock";
constexpr char kUnlockFile[] = "/sys/power/wake_unlock";
constexpr char kNanosecondsPerMs[] = "000000";

int writeFile(const char* path, const std::string& text) {
  const base::FileDescriptor file(open(path, O_WRONLY | O_CLOEXEC));
  if (!file) {
    return -errno;
  }
  // One write is one request to the kernel.
  const ssize_t written = write(file.get(), text.data(), text.size());
  return written < 0 ? -errno : 0;
}

}  // namespace

WakeLock::WakeLock(WakeLock&& other) noexcept : name_(std::exchange(other.name_, {})) {}

WakeLock& WakeLock::operator=(WakeLock&& other) noexcept {
  release();
  name_ = std::exchange(other.name_, {});
  return *this;
}

int WakeLock::take(const std::string& name, int timeoutMs) {
  release();
  const int status = writeFile(kLockFile, name + " " + std::to_string(timeoutMs) + kNanosecondsPerMs);
  if (status == 0) {
    name_ = name;
  }
  return status;
}

void WakeLock::release() {
  if (!name_.empty()) {
    writeFile(kUnlockFile, name_);
    name_.clear();
  }
}

}  // namespace fwplatform
