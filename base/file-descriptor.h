// SPDX-License-Identifier: Apache-2.0
// Owns one file descriptor and closes it. Movable; not for sharing between threads.
#ifndef FW_BASE_FILE_DESCRIPTOR_H
#define FW_BASE_FILE_DESCRIPTOR_H

#include <string>
#include <utility>

namespace base {

class FileDescriptor {
 public:
  FileDescriptor() = default;
  explicit FileDescriptor(int number) : number_(number) {}
  FileDescriptor(FileDescriptor&& other) noexcept : number_(other.release()) {}
  FileDescriptor& operator=(FileDescriptor&& other) noexcept {
    reset(other.release());
    return *this;
  }
  ~FileDescriptor() { reset(); }

  explicit operator bool() const { return number_ >= 0; }
  int get() const { return number_; }
  int release() { return std::exchange(number_, -1); }
  // Closing does not change errno, so that the reason of a failure survives.
  void reset(int number = -1);

  // A path that always leads to what is opened, whatever its name is by now.
  std::string path() const;
  // What it is called now, for messages.
  std::string target() const;

 private:
  int number_ = -1;
};

// The path() of a descriptor that somebody else owns.
std::string descriptorPath(int number);

struct Pipe {
  FileDescriptor readEnd;
  FileDescriptor writeEnd;
};

// Not for programs that are started. flags as for pipe2; both ends are empty, and errno
// says why, when there is none.
Pipe makePipe(int flags = 0);

}  // namespace base

#endif
