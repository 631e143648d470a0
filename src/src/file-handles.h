// SPDX-License-Identifier: Apache-2.0
// Owners of the C handles that the library uses.
#ifndef FILE_HANDLES_H
#define FILE_HANDLES_H

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <memory>
#include <utility>

struct CloseStream {
  void operator()(FILE* stream) const { std::fclose(stream); }
};
using Stream = std::unique_ptr<FILE, CloseStream>;

// Move-only owner of a file descriptor.
class FileDescriptor {
 public:
  explicit FileDescriptor(int descriptor) : value_(descriptor) {}
  FileDescriptor(FileDescriptor&& other) noexcept : value_(std::exchange(other.value_, -1)) {}
  FileDescriptor& operator=(FileDescriptor&& other) noexcept {
    std::swap(value_, other.value_);
    return *this;
  }
  ~FileDescriptor() {
    if (value_ >= 0) {
      ::close(value_);
    }
  }

  bool isOpen() const { return value_ >= 0; }
  int get() const { return value_; }
  int release() { return std::exchange(value_, -1); }

 private:
  int value_;
};

#endif
