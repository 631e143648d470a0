// SPDX-License-Identifier: Apache-2.0
#include "file-descriptor.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <system_error>

namespace base {

void FileDescriptor::reset(int number) {
  const int old = std::exchange(number_, number);
  if (old >= 0) {
    const int error = errno;
    close(old);
    errno = error;
  }
}

std::string FileDescriptor::path() const {
  return descriptorPath(number_);
}

std::string FileDescriptor::target() const {
  std::error_code unknown;
  const auto name = std::filesystem::read_symlink(path(), unknown);
  return unknown ? path() : name.string();
}

std::string descriptorPath(int number) {
  return "/proc/self/fd/" + std::to_string(number);
}

Pipe makePipe(int flags) {
  int ends[2] = {-1, -1};
  if (pipe2(ends, flags | O_CLOEXEC) != 0) {
    return {};
  }
  return {FileDescriptor(ends[0]), FileDescriptor(ends[1])};
}

}  // namespace base
