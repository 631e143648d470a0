// SPDX-License-Identifier: Apache-2.0
// Opens paths without following a symbolic link anywhere, as O_PATH descriptors:
// opening has no effect on what is opened, and waits for nobody. Any thread.
#ifndef PLATFORM_LINUX_SAFE_PATH_H
#define PLATFORM_LINUX_SAFE_PATH_H

#include <sys/stat.h>

#include <string>

#include "file-descriptor.h"

namespace fwplatform {

struct OpenedPath {
  base::FileDescriptor fd;
  struct stat status = {};
};

// Each gives 0 or an errno value; ELOOP when a component is a symbolic link.

// path: absolute, of plain components.
int openDirectory(const std::string& path, base::FileDescriptor& directory);
// Whatever has this name in the directory, of any type but a symbolic link.
int openEntry(const std::string& directory, const std::string& name, OpenedPath& entry);
int openEntryAt(int directory, const std::string& name, OpenedPath& entry);

// Opens what is opened once more, to read it, without waiting for anybody: EAGAIN for a
// file that somebody holds a lease on. 0 or an errno value.
int openForReading(const OpenedPath& file, base::FileDescriptor& content);

// Whether something is mounted on the directory. 0 or an errno value: ENOSYS when the
// kernel does not tell.
int seeMountPoint(const OpenedPath& directory, bool& mounted);

// True when both are on the same mount, and the kernel says so.
bool areOnOneMount(int first, int second);

}  // namespace fwplatform

#endif
