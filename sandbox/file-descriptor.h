// Owns one file descriptor and closes it. Moves, never copies; not shared between
// threads.
#ifndef SANDBOX_FILE_DESCRIPTOR_H
#define SANDBOX_FILE_DESCRIPTOR_H

#include <unistd.h>

#include <filesystem>
#include <string>
#include <system_error>
#include <utility>

namespace sandbox {

class FileDescriptor {
 public:
  FileDescriptor() = default;
  explicit FileDescriptor(int fd) : fd_(fd) {}
  FileDescriptor(FileDescriptor&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
  FileDescriptor& operator=(FileDescriptor&& other) noexcept {
    std::swap(fd_, other.fd_);
    return *this;
  }
  FileDescriptor(const FileDescriptor&) = delete;
  FileDescriptor& operator=(const FileDescriptor&) = delete;
  ~FileDescriptor() {
    if (fd_ >= 0) {
      close(fd_);
    }
  }

  bool valid() const { return fd_ >= 0; }
  int get() const { return fd_; }
  // A path that names what the descriptor refers to, even when it is hidden.
  std::string path() const { return "/proc/self/fd/" + std::to_string(fd_); }
  // What it is called now, for messages.
  std::string target() const {
    std::error_code unknown;
    const auto name = std::filesystem::read_symlink(path(), unknown);
    return unknown ? path() : name.string();
  }

 private:
  int fd_ = -1;
};

}  // namespace sandbox

#endif
