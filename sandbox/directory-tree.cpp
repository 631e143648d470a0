// SPDX-License-Identifier: Apache-2.0
#include "directory-tree.h"

#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <system_error>

#include "system-error.h"
#include "whole-file.h"

namespace sandbox {
namespace fs = std::filesystem;
namespace {

// The kernel gives up when names change while it looks; it wants to be asked again.
constexpr int kAttempts = 100;
constexpr int kDirectory = O_PATH | O_DIRECTORY;

struct stat statusOf(const base::FileDescriptor& file) {
  struct stat status = {};
  if (fstat(file.get(), &status) != 0) {
    base::throwErrno("cannot look at " + file.path());
  }
  return status;
}

}  // namespace

DirectoryTree::DirectoryTree(const std::string& directory)
    : name_(directory), directory_(::open(directory.c_str(), kDirectory | O_CLOEXEC)) {
  if (!directory_) {
    base::throwErrno("cannot open the directory " + directory);
  }
}

uid_t DirectoryTree::owner() const {
  return statusOf(directory_).st_uid;
}

bool DirectoryTree::isSame(const DirectoryTree& other) const {
  const auto ours = statusOf(directory_);
  const auto theirs = statusOf(other.directory_);
  return ours.st_dev == theirs.st_dev && ours.st_ino == theirs.st_ino;
}

base::FileDescriptor DirectoryTree::attempt(const std::string& path, int flags) const {
  const auto relative = path.size() > 1 ? path.substr(1) : ".";
  // Nothing is outside of "/", and a tool that a test runs under may not know openat2.
  if (name_ == "/") {
    return base::FileDescriptor(openat(directory_.get(), relative.c_str(), flags | O_CLOEXEC));
  }
  open_how how = {};
  how.flags = static_cast<unsigned int>(flags | O_CLOEXEC);
  how.resolve = RESOLVE_BENEATH | RESOLVE_NO_MAGICLINKS;
  for (int i = 0; i < kAttempts; ++i) {
    const long opened = syscall(SYS_openat2, directory_.get(), relative.c_str(), &how, sizeof how);
    if (opened >= 0 || errno != EAGAIN) {
      return base::FileDescriptor(static_cast<int>(opened));
    }
  }
  return base::FileDescriptor();
}

void DirectoryTree::fail(const std::string& path) const {
  const auto whole = (name_ == "/" ? "" : name_) + path;
  const auto what = errno == EXDEV || errno == ELOOP
                        ? "a link at " + whole + " leads out of " + name_ + "; remove the link"
                        : "cannot open " + whole;
  base::throwErrno(what);
}

base::FileDescriptor DirectoryTree::open(const std::string& path, int flags) const {
  auto opened = attempt(path, flags);
  if (!opened && errno != ENOENT) {
    fail(path);
  }
  return opened;
}

base::FileDescriptor DirectoryTree::make(const std::string& path, mode_t mode) const {
  auto present = open(path, kDirectory);
  if (present) {
    return present;
  }
  const fs::path made = path;
  const auto parent = make(made.parent_path());
  const auto name = made.filename();
  if (mkdirat(parent.get(), name.c_str(), 0755) != 0) {
    fail(path);  // a link that leads nowhere, too
  }
  base::FileDescriptor directory(openat(parent.get(), name.c_str(), kDirectory | O_NOFOLLOW | O_CLOEXEC));
  if (!directory || chmod(directory.path().c_str(), mode) != 0) {
    fail(path);
  }
  return directory;
}

std::string DirectoryTree::read(const std::string& path) const {
  const auto file = open(path, O_RDONLY | O_NONBLOCK | O_NOCTTY);
  if (!file || !S_ISREG(statusOf(file).st_mode)) {
    return "";
  }
  std::string content;
  if (const int error = base::readToEnd(file.get(), content.max_size(), content); error != 0) {
    errno = error;
    fail(path);
  }
  return content;
}

void replaceFile(const base::FileDescriptor& directory, const std::string& name, const std::string& content) {
  if (const int error = base::replaceFileAt(directory.get(), name, content, false); error != 0) {
    // A directory may stand where the new file is written first.
    const std::string refused = directory.target() + "/" + name + (error == EEXIST ? ".new" : "");
    errno = error;
    base::throwErrno("cannot write " + refused);
  }
}

void DirectoryTree::write(const std::string& path, const std::string& content) const {
  const fs::path file = path;
  replaceFile(make(file.parent_path()), file.filename(), content);
}

}  // namespace sandbox
