// SPDX-License-Identifier: Apache-2.0
#include "posix-file.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>
#include <utility>

namespace fwcomponent {

FileDescriptor::FileDescriptor(FileDescriptor&& other) noexcept
    : descriptor_(std::exchange(other.descriptor_, -1)) {}

FileDescriptor& FileDescriptor::operator=(FileDescriptor&& other) noexcept {
  std::swap(descriptor_, other.descriptor_);
  return *this;
}

FileDescriptor::~FileDescriptor() {
  // What was written has been synced before, so close has nothing left to report.
  if (descriptor_ >= 0) {
    ::close(descriptor_);
  }
}

void fail(int error, const std::string& what) {
  throw std::system_error(error, std::generic_category(), what);
}

FileDescriptor openFile(const std::string& path, int flags, mode_t mode) {
  int descriptor = -1;
  do {
    descriptor = ::open(path.c_str(), flags | O_CLOEXEC, mode);
  } while (descriptor < 0 && errno == EINTR);
  if (descriptor < 0) {
    fail(errno, path);
  }
  return FileDescriptor(descriptor);
}

std::size_t readBlock(int descriptor, void* buffer, std::size_t capacity) {
  std::size_t filled = 0;
  while (filled < capacity) {
    const ssize_t got = ::read(descriptor, static_cast<char*>(buffer) + filled, capacity - filled);
    if (got < 0 && errno == EINTR) {
      continue;
    }
    if (got < 0) {
      fail(errno, "read");
    }
    if (got == 0) {
      break;
    }
    filled += static_cast<std::size_t>(got);
  }
  return filled;
}

std::string readText(const std::string& path, std::size_t greatest) {
  const FileDescriptor file = openFile(path, O_RDONLY | O_NONBLOCK);
  std::string text(greatest + 1, '\0');
  text.resize(readBlock(file.get(), text.data(), text.size()));
  if (text.size() > greatest) {
    fail(EINVAL, path + " is too long");
  }
  return text;
}

void writeAll(int descriptor, const void* data, std::size_t length) {
  std::size_t written = 0;
  while (written < length) {
    const ssize_t put = ::write(descriptor, static_cast<const char*>(data) + written, length - written);
    if (put < 0 && errno == EINTR) {
      continue;
    }
    if (put < 0) {
      fail(errno, "write");
    }
    written += static_cast<std::size_t>(put);
  }
}

}  // namespace fwcomponent
