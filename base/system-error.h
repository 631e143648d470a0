// SPDX-License-Identifier: Apache-2.0
// What errno says, as text and as an exception, and a guard for it. Any thread.
#ifndef FW_BASE_SYSTEM_ERROR_H
#define FW_BASE_SYSTEM_ERROR_H

#include <cerrno>
#include <string>
#include <system_error>

namespace base {

inline std::string errnoText(int error) {
  return std::generic_category().message(error);
}

// Throws std::system_error with errno; what says what failed.
[[noreturn]] inline void throwErrno(const std::string& what) {
  const int error = errno;
  throw std::system_error(error, std::generic_category(), what);
}

// errno afterwards is what it was before.
class KeepErrno {
 public:
  KeepErrno() : saved_(errno) {}
  ~KeepErrno() { errno = saved_; }
  KeepErrno(const KeepErrno&) = delete;
  KeepErrno& operator=(const KeepErrno&) = delete;
  int saved() const { return saved_; }

 private:
  const int saved_;
};

}  // namespace base

#endif
