// SPDX-License-Identifier: Apache-2.0
// Files of a component, with every system call checked. FileDescriptor owns one
// descriptor and closes it; the functions throw std::system_error, whose code is
// the errno and whose text names what failed. Nothing here does any locking.
#ifndef MODULES_COMMON_POSIX_FILE_H
#define MODULES_COMMON_POSIX_FILE_H

#include <sys/types.h>

#include <cstddef>
#include <string>

namespace fwcomponent {

// Where every component keeps its flash, its progress and the common journal.
constexpr const char* kComponentsDirectory = "/var/lib/fw-components/";

class FileDescriptor {
 public:
  explicit FileDescriptor(int descriptor) : descriptor_(descriptor) {}
  FileDescriptor(FileDescriptor&& other) noexcept;
  FileDescriptor& operator=(FileDescriptor&& other) noexcept;
  ~FileDescriptor();

  int get() const { return descriptor_; }

 private:
  int descriptor_;
};

[[noreturn]] void fail(int error, const std::string& what);

// The descriptor is close-on-exec, and a symbolic link at the end of path is
// followed only when flags do not hold O_NOFOLLOW.
FileDescriptor openFile(const std::string& path, int flags, mode_t mode = 0);

// Fills buffer, or less of it at the end of the file; the result is the number
// of bytes read.
std::size_t readBlock(int descriptor, void* buffer, std::size_t capacity);

// The whole file; EINVAL when it has more than greatest bytes. A FIFO does not hold it up.
std::string readText(const std::string& path, std::size_t greatest);

void writeAll(int descriptor, const void* data, std::size_t length);

}  // namespace fwcomponent

#endif
