// SPDX-License-Identifier: Apache-2.0
#include "lock/run-directory.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace tool {
namespace {

using base::FileDescriptor;

constexpr const char* kPath = "/run/fw-update";
constexpr mode_t kOthersMayWrite = 022;
constexpr mode_t kOthersMayUse = 077;
constexpr mode_t kOwnOnly = 0600;

bool belongsToUs(const struct stat& status) {
  return status.st_uid == 0 || status.st_uid == geteuid();
}

}  // namespace

FileDescriptor openRunDirectory() {
  FileDescriptor directory(open(kPath, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  struct stat status {};
  if (directory && (fstat(directory.get(), &status) != 0 || !belongsToUs(status) ||
                    (status.st_mode & kOthersMayWrite) != 0)) {
    directory.reset();
  }
  return directory;
}

FileDescriptor makeRunDirectory() {
  mkdir(kPath, 0755);
  return openRunDirectory();
}

FileDescriptor openOwnLockFile(const FileDescriptor& directory, const char* name) {
  FileDescriptor file(openat(directory.get(), name, O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, kOwnOnly));
  struct stat status {};
  if (file && (fstat(file.get(), &status) != 0 || !belongsToUs(status) ||
               ((status.st_mode & kOthersMayUse) != 0 && fchmod(file.get(), kOwnOnly) != 0))) {
    file.reset();
  }
  return file;
}

}  // namespace tool
