// SPDX-License-Identifier: Apache-2.0
#include "whole-file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "file-descriptor.h"

namespace base {
namespace {

int readRegular(const FileDescriptor& file, std::size_t limit, std::string& content) {
  struct stat status = {};
  if (!file || fstat(file.get(), &status) != 0) {
    return errno;
  }
  return S_ISREG(status.st_mode) ? readToEnd(file.get(), limit, content) : EINVAL;
}

int writeNewFile(int directory, const std::string& name, const std::string& content, bool sync) {
  unlinkat(directory, name.c_str(), 0);  // of a process that was killed, or a link
  const FileDescriptor file(
      openat(directory, name.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0644));
  if (!file) {
    return errno;
  }
  if (fchmod(file.get(), 0644) != 0) {  // whatever the umask is
    return errno;
  }
  if (const int error = writeAll(file.get(), content); error != 0) {
    return error;
  }
  return sync && fsync(file.get()) != 0 ? errno : 0;
}

}  // namespace

int readToEnd(int file, std::size_t limit, std::string& content) {
  content.clear();
  char block[4096];
  for (;;) {
    const ssize_t count = read(file, block, sizeof block);
    if (count < 0 && errno == EINTR) {
      continue;
    }
    if (count <= 0) {
      return count < 0 ? errno : 0;
    }
    content.append(block, static_cast<std::size_t>(count));
    if (content.size() > limit) {
      return EFBIG;
    }
  }
}

int readFile(const std::string& path, std::size_t limit, std::string& content) {
  return readRegular(FileDescriptor(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC)), limit,
                     content);
}

int readFileAt(int directory, const std::string& name, std::size_t limit, std::string& content) {
  constexpr int kFlags = O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;
  return readRegular(FileDescriptor(openat(directory, name.c_str(), kFlags)), limit, content);
}

int writeAll(int file, std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t count = write(file, bytes.data(), bytes.size());
    if (count < 0 && errno != EINTR) {
      return errno;
    }
    bytes.remove_prefix(count > 0 ? static_cast<std::size_t>(count) : 0);
  }
  return 0;
}

int replaceFileAt(int directory, const std::string& name, const std::string& content, bool sync) {
  const std::string unfinished = name + ".new";
  int error = writeNewFile(directory, unfinished, content, sync);
  if (error == 0 && renameat(directory, unfinished.c_str(), directory, name.c_str()) != 0) {
    error = errno;
  }
  if (error != 0) {
    unlinkat(directory, unfinished.c_str(), 0);
    return error;
  }
  return sync ? syncDirectory(directory) : 0;
}

int syncDirectory(int directory) {
  const FileDescriptor opened(openat(directory, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  return opened && fsync(opened.get()) == 0 ? 0 : errno;
}

}  // namespace base
