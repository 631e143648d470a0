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
  explicit FileDescriptor(int descriptor) : value(descriptor) {}
  FileDescriptor(FileDescriptor&& other) noexcept : value(std::exchange(other.value, -1)) {}
  FileDescriptor& operator=(FileDescriptor&& other) noexcept {
    std::swap(value, other.value);
    return *this;
  }
  ~FileDescriptor() {
    if (value >= 0) {
      ::close(value);
    }
  }

  bool isOpen() const { return value >= 0; }
  int get() const { return value; }
  int release() { return std::exchange(value, -1); }

 private:
  int value;
};

#endif
