// Owns one file descriptor and closes it. Movable; not for sharing between threads.
#ifndef PLATFORM_LINUX_UNIQUE_FD_H
#define PLATFORM_LINUX_UNIQUE_FD_H

#include <unistd.h>

#include <cerrno>
#include <utility>

namespace fwplatform {

class UniqueFd {
 public:
  UniqueFd() = default;
  explicit UniqueFd(int fd) : fd_(fd) {}
  UniqueFd(UniqueFd&& other) noexcept : fd_(other.release()) {}
  UniqueFd& operator=(UniqueFd&& other) noexcept {
    reset(other.release());
    return *this;
  }
  ~UniqueFd() { reset(); }

  explicit operator bool() const { return fd_ >= 0; }
  int get() const { return fd_; }
  int release() { return std::exchange(fd_, -1); }
  // Closing does not change errno, so that the reason of a failure survives.
  void reset(int fd = -1);

 private:
  int fd_ = -1;
};

inline void UniqueFd::reset(int fd) {
  const int old = std::exchange(fd_, fd);
  if (old >= 0) {
    const int error = errno;
    close(old);
    errno = error;
  }
}

}  // namespace fwplatform

#endif
