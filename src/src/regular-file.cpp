// SPDX-License-Identifier: Apache-2.0
#include "regular-file.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>

bool isRegularFile(const std::string& path) {
  struct stat status = {};
  return stat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode);
}

RegularFile openRegularFile(const std::string& path) {
  RegularFile none{FileDescriptor(-1), 0};
  // Looked at before, because opening a device may already have an effect, and after,
  // because the path may lead elsewhere by then.
  if (!isRegularFile(path)) {
    return none;
  }
  FileDescriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
  struct stat status = {};
  if (!file.isOpen() || fstat(file.get(), &status) != 0 || !S_ISREG(status.st_mode)) {
    return none;
  }
  return {std::move(file), status.st_size};
}

bool readRegularFile(const std::string& path, std::size_t limit, std::string& content) {
  const RegularFile file = openRegularFile(path);
  if (!file.descriptor.isOpen() || file.size > static_cast<off_t>(limit)) {
    return false;
  }
  content.resize(static_cast<std::size_t>(file.size) + 1);  // full only when it has grown
  std::size_t length = 0;
  while (length < content.size()) {
    const ssize_t got = read(file.descriptor.get(), &content[length], content.size() - length);
    if (got < 0 && errno == EINTR) {
      continue;
    }
    if (got < 0) {
      return false;
    }
    if (got == 0) {
      content.resize(length);
      return true;
    }
    length += static_cast<std::size_t>(got);
  }
  return false;
}
