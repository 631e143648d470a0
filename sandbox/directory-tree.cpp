#include "directory-tree.h"

#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <system_error>

#include "replaced-file.h"

namespace sandbox {
namespace fs = std::filesystem;
namespace {

// The kernel gives up when names change while it looks; it wants to be asked again.
constexpr int kAttempts = 100;
constexpr int kDirectory = O_PATH | O_DIRECTORY;

struct stat statusOf(const FileDescriptor& file) {
  struct stat status = {};
  if (fstat(file.get(), &status) != 0) {
    throw std::system_error(errno, std::generic_category(), "cannot look at " + file.path());
  }
  return status;
}

}  // namespace

DirectoryTree::DirectoryTree(const std::string& directory)
    : name_(directory), directory_(::open(directory.c_str(), kDirectory | O_CLOEXEC)) {
  if (!directory_.valid()) {
    throw std::system_error(errno, std::generic_category(), "cannot open the directory " + directory);
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

FileDescriptor DirectoryTree::attempt(const std::string& path, int flags) const {
  const auto relative = path.size() > 1 ? path.substr(1) : ".";
  // Nothing is outside of "/", and a tool that a test runs under may not know openat2.
  if (name_ == "/") {
    return FileDescriptor(openat(directory_.get(), relative.c_str(), flags | O_CLOEXEC));
  }
  open_how how = {};
  how.flags = static_cast<unsigned int>(flags | O_CLOEXEC);
  how.resolve = RESOLVE_BENEATH | RESOLVE_NO_MAGICLINKS;
  for (int i = 0; i < kAttempts; ++i) {
    const long opened = syscall(SYS_openat2, directory_.get(), relative.c_str(), &how, sizeof how);
    if (opened >= 0 || errno != EAGAIN) {
      return FileDescriptor(static_cast<int>(opened));
    }
  }
  return FileDescriptor();
}

void DirectoryTree::fail(const std::string& path) const {
  const auto whole = (name_ == "/" ? "" : name_) + path;
  const auto what = errno == EXDEV || errno == ELOOP
                        ? "a link at " + whole + " leads out of " + name_ + "; remove the link"
                        : "cannot open " + whole;
  throw std::system_error(errno, std::generic_category(), what);
}

FileDescriptor DirectoryTree::open(const std::string& path, int flags) const {
  auto opened = attempt(path, flags);
  if (!opened.valid() && errno != ENOENT) {
    fail(path);
  }
  return opened;
}

FileDescriptor DirectoryTree::make(const std::string& path, mode_t mode) const {
  auto present = open(path, kDirectory);
  if (present.valid()) {
    return present;
  }
  const fs::path made = path;
  const auto parent = make(made.parent_path());
  const auto name = made.filename();
  if (mkdirat(parent.get(), name.c_str(), 0755) != 0) {
    fail(path);  // a link that leads nowhere, too
  }
  FileDescriptor directory(openat(parent.get(), name.c_str(), kDirectory | O_NOFOLLOW | O_CLOEXEC));
  if (!directory.valid() || chmod(directory.path().c_str(), mode) != 0) {
    fail(path);
  }
  return directory;
}

std::string DirectoryTree::read(const std::string& path) const {
  const auto file = open(path, O_RDONLY | O_NONBLOCK | O_NOCTTY);
  if (!file.valid() || !S_ISREG(statusOf(file).st_mode)) {
    return "";
  }
  std::string content;
  char block[4096];
  ssize_t count = 0;
  while ((count = ::read(file.get(), block, sizeof block)) > 0) {
    content.append(block, static_cast<std::size_t>(count));
  }
  if (count < 0) {
    fail(path);
  }
  return content;
}

void DirectoryTree::write(const std::string& path, const std::string& content) const {
  const fs::path file = path;
  replaceFile(make(file.parent_path()), file.filename(), content);
}

}  // namespace sandbox
