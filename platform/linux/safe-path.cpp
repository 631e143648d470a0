// SPDX-License-Identifier: Apache-2.0
#include "safe-path.h"

#include <fcntl.h>
#include <linux/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <utility>

namespace fwplatform {
namespace {

std::optional<std::uint64_t> mountOf(int fd) {
  struct statx status = {};
  // After a failure its mask is still empty, as it is from a kernel that does not tell.
  statx(fd, "", AT_EMPTY_PATH, STATX_MNT_ID, &status);
  return (status.stx_mask & STATX_MNT_ID) == 0 ? std::nullopt
                                               : std::optional<std::uint64_t>(status.stx_mnt_id);
}

}  // namespace

int openEntryAt(int directory, const std::string& name, OpenedPath& entry) {
  base::FileDescriptor fd(openat(directory, name.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
  struct stat status = {};
  if (!fd || fstat(fd.get(), &status) != 0) {
    return errno;
  }
  // With O_PATH a symbolic link is opened itself.
  if (S_ISLNK(status.st_mode)) {
    return ELOOP;
  }
  entry.fd = std::move(fd);
  entry.status = status;
  return 0;
}

int openDirectory(const std::string& path, base::FileDescriptor& directory) {
  base::FileDescriptor reached(open("/", O_PATH | O_DIRECTORY | O_CLOEXEC));
  if (!reached) {
    return errno;
  }
  for (std::size_t start = 1; start < path.size();) {
    const std::size_t end = std::min(path.find('/', start), path.size());
    OpenedPath next;
    if (const int error = openEntryAt(reached.get(), path.substr(start, end - start), next); error != 0) {
      return error;
    }
    reached = std::move(next.fd);
    start = end + 1;
  }
  directory = std::move(reached);
  return 0;
}

int openEntry(const std::string& directory, const std::string& name, OpenedPath& entry) {
  base::FileDescriptor opened;
  if (const int error = openDirectory(directory, opened); error != 0) {
    return error;
  }
  return openEntryAt(opened.get(), name, entry);
}

int openForReading(const OpenedPath& file, base::FileDescriptor& content) {
  content.reset(open(file.fd.path().c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
  return content ? 0 : errno;
}

int seeMountPoint(const OpenedPath& directory, bool& mounted) {
  struct statx status = {};
  if (statx(directory.fd.get(), "", AT_EMPTY_PATH, STATX_BASIC_STATS, &status) != 0) {
    return errno;
  }
  // An attribute that the kernel does not know is 0, whatever is mounted.
  if ((status.stx_attributes_mask & STATX_ATTR_MOUNT_ROOT) == 0) {
    return ENOSYS;
  }
  mounted = (status.stx_attributes & STATX_ATTR_MOUNT_ROOT) != 0;
  return 0;
}

bool areOnOneMount(int first, int second) {
  const std::optional<std::uint64_t> mount = mountOf(first);
  return mount && mount == mountOf(second);
}

}  // namespace fwplatform
