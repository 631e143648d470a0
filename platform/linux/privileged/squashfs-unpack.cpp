// SPDX-License-Identifier: Apache-2.0
#include "privileged/squashfs-unpack.h"

#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/syscall.h>
#include <sys/vfs.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <fstream>

#include "deadline.h"
#include "privileged/detached-mount.h"
#include "program-start.h"

namespace fwplatform {
namespace {

constexpr char kUnsquashfs[] = "/usr/bin/unsquashfs";

// Where the child finds what it works on.
constexpr int kImageFd = 3;
constexpr int kTreeFd = 4;
constexpr char kImageArgument[] = "/proc/self/fd/3";
constexpr char kTreeArgument[] = "/proc/self/fd/4";
constexpr int kExecFailed = 127;
// unsquashfs's exit code when all files are there, but not all of their owners or
// not the device nodes: as it must be in a user namespace.
constexpr int kLeftSomethingOut = 2;

// Runs in the child of a process that may have threads: system calls only.
[[noreturn]] void runUnsquashfs(int image, int tree, int messages) {
  // In a user namespace of its own it has no rights over anything else, whatever
  // the image does to it, and doesn't try to give files to users that do not
  // exist here. Where that namespace is not to be had, it works without.
  unshare(CLONE_NEWUSER);
  const bool ready = dup2(messages, STDIN_FILENO) >= 0 && dup2(messages, STDOUT_FILENO) >= 0 &&
                     dup2(messages, STDERR_FILENO) >= 0 && dup2(image, kImageFd) >= 0 &&
                     dup2(tree, kTreeFd) >= 0;
  close_range(kTreeFd + 1, ~0U, 0);
  char* const arguments[] = {
      const_cast<char*>("unsquashfs"),  const_cast<char*>("-quiet"),       const_cast<char*>("-no-progress"),
      const_cast<char*>("-no-xattrs"),  const_cast<char*>("-force"),       const_cast<char*>("-dest"),
      const_cast<char*>(kTreeArgument), const_cast<char*>(kImageArgument), nullptr};
  char* const environment[] = {const_cast<char*>("LC_ALL=C"), nullptr};
  if (ready) {
    execve(kUnsquashfs, arguments, environment);
  }
  _exit(kExecFailed);
}

// A copy above the numbers that the child uses, so that no copy overwrites it.
base::FileDescriptor highCopy(int fd) {
  return base::FileDescriptor(fcntl(fd, F_DUPFD_CLOEXEC, 10));
}

// The end of a child, as an exit code; -1 when it was killed or ran out of time.
int waitFor(pid_t child, int milliseconds) {
  const base::FileDescriptor handle(static_cast<int>(syscall(SYS_pidfd_open, child, 0)));
  if (!handle || base::Deadline(milliseconds).waitToRead(handle.get()) <= 0) {
    kill(child, SIGKILL);
  }
  const int status = base::waitForEnd(child);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// The last line that a child wrote: what went wrong.
std::string lastLine(int messages) {
  char text[512];
  const off_t size = lseek(messages, 0, SEEK_END);
  const off_t start = size > static_cast<off_t>(sizeof text) ? size - static_cast<off_t>(sizeof text) : 0;
  const ssize_t count = pread(messages, text, sizeof text, start);
  std::string line(text, count > 0 ? static_cast<std::size_t>(count) : 0);
  line.erase(line.find_last_not_of('\n') + 1);
  const std::size_t previous = line.rfind('\n');
  return previous == std::string::npos ? line : line.substr(previous + 1);
}

bool isFull(int tree) {
  struct statfs status = {};
  return fstatfs(tree, &status) == 0 && (status.f_bfree == 0 || status.f_ffree == 0);
}

int unpack(const base::FileDescriptor& image, int tree, const UnpackLimits& limits, std::string& reason) {
  const base::FileDescriptor messages(memfd_create("unsquashfs", MFD_CLOEXEC));
  const base::FileDescriptor imageCopy = highCopy(image.get());
  const base::FileDescriptor treeCopy = highCopy(tree);
  const base::FileDescriptor messagesCopy = highCopy(messages.get());
  if (!messages || !imageCopy || !treeCopy || !messagesCopy) {
    return errno;
  }
  const pid_t child = fork();
  if (child == 0) {
    runUnsquashfs(imageCopy.get(), treeCopy.get(), messagesCopy.get());
  }
  if (child < 0) {
    return errno;
  }
  const int code = waitFor(child, limits.milliseconds);
  if (code == 0 || code == kLeftSomethingOut) {
    return 0;
  }
  if (isFull(tree)) {
    reason = "the image is too big";
    return ENOSPC;
  }
  if (code == kExecFailed) {
    reason = std::string(kUnsquashfs) + " can't be run";
    return ENOSYS;
  }
  if (code < 0) {
    reason = "unsquashfs took too long or was ended";
    return ETIMEDOUT;
  }
  reason = lastLine(messages.get());
  return EINVAL;  // as the kernel says for an image that it can't read
}

}  // namespace

bool isInUserNamespace() {
  std::ifstream map("/proc/self/uid_map");
  unsigned long inside = 1, outside = 1, count = 0;
  map >> inside >> outside >> count;
  constexpr unsigned long kEveryUser = 4294967295UL;
  return map && !(inside == 0 && outside == 0 && count == kEveryUser);
}

int unpackOnTmpfs(const base::FileDescriptor& image, unsigned attributes, const UnpackLimits& limits,
                  base::FileDescriptor& tree, std::string& reason) {
  reason = "making a tmpfs";
  base::FileDescriptor unpacked;
  const DetachedMountRequest request = {
      "tmpfs",
      {{"mode", "0755"}, {"size", limits.size}, {"nr_inodes", limits.files}},
      attributes & ~static_cast<unsigned>(MOUNT_ATTR_RDONLY)};
  if (const int error = mountDetached(request, unpacked); error != 0) {
    return error;
  }
  reason = "running unsquashfs";
  if (const int error = unpack(image, unpacked.get(), limits, reason); error != 0) {
    return error;
  }
  reason = "making the tmpfs read-only";
  mount_attr readOnly = {};
  readOnly.attr_set = MOUNT_ATTR_RDONLY;
  if (mount_setattr(unpacked.get(), "", AT_EMPTY_PATH, &readOnly, sizeof readOnly) != 0) {
    return errno;
  }
  tree = std::move(unpacked);
  return 0;
}

}  // namespace fwplatform
