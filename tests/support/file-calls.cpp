// SPDX-License-Identifier: Apache-2.0
#include "file-calls.h"

#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <utility>

namespace filecalls {

std::optional<uid_t> user;
std::string fails;
std::function<void(const std::string&)> before;

std::vector<std::string>& made() {
  static std::vector<std::string> calls;
  return calls;
}

void reset() {
  made().clear();
  user.reset();
  fails.clear();
  before = nullptr;
}

namespace {

std::string nameOf(int file) {
  std::error_code ignored;
  const auto path = std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(file), ignored);
  return path.filename();
}

std::string lastOf(const char* path) {
  return std::filesystem::path(path).filename();
}

// False when it is to fail.
bool noteDown(const std::string& call) {
  made().push_back(call);
  if (const auto next = std::exchange(before, nullptr)) {
    next(call);
    before = next;
  }
  if (fails.empty() || call.rfind(fails, 0) != 0) {
    return true;
  }
  fails.clear();
  errno = EIO;
  return false;
}

}  // namespace
}  // namespace filecalls

using filecalls::lastOf;
using filecalls::nameOf;
using filecalls::noteDown;

extern "C" {

int fsync(int file) {
  return noteDown("sync " + nameOf(file)) ? static_cast<int>(syscall(SYS_fsync, file)) : -1;
}

int fdatasync(int file) {
  return noteDown("sync " + nameOf(file)) ? static_cast<int>(syscall(SYS_fdatasync, file)) : -1;
}

int ftruncate(int file, off_t size) noexcept {
  if (!noteDown("truncate " + nameOf(file))) {
    return -1;
  }
#ifdef SYS_ftruncate64  // a 32-bit system takes the size in two halves
  return static_cast<int>(syscall(SYS_ftruncate64, file, static_cast<unsigned long>(size),
                                  static_cast<unsigned long>(size >> 32)));
#else
  return static_cast<int>(syscall(SYS_ftruncate, file, size));
#endif
}

int rename(const char* oldName, const char* newName) noexcept {
  return noteDown("rename " + lastOf(oldName) + " " + lastOf(newName))
             ? static_cast<int>(syscall(SYS_rename, oldName, newName))
             : -1;
}

int renameat2(int from, const char* oldName, int to, const char* newName, unsigned int flags) noexcept {
  return noteDown("rename " + lastOf(oldName) + " " + lastOf(newName))
             ? static_cast<int>(syscall(SYS_renameat2, from, oldName, to, newName, flags))
             : -1;
}

int renameat(int from, const char* oldName, int to, const char* newName) noexcept {
  return noteDown(std::string("rename ") + oldName + " " + newName)
             ? static_cast<int>(syscall(SYS_renameat, from, oldName, to, newName))
             : -1;
}

int unlinkat(int directory, const char* name, int flags) noexcept {
  return noteDown(std::string("unlink ") + name)
             ? static_cast<int>(syscall(SYS_unlinkat, directory, name, flags))
             : -1;
}

uid_t geteuid() noexcept {
  return filecalls::user.value_or(static_cast<uid_t>(syscall(SYS_geteuid)));
}

}  // extern "C"
