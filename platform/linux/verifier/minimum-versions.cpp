// SPDX-License-Identifier: Apache-2.0
#include "minimum-versions.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <filesystem>

#include "file-descriptor.h"
#include "version-order.h"
#include "whole-file.h"

namespace fwpackage {
namespace {

using base::FileDescriptor;

constexpr std::size_t kLongestVersion = 255;
// Nobody but its owner may open it: who could lock it could stop everybody who raises.
constexpr char kLockName[] = ".lock";
constexpr mode_t kLockMode = 0600;

MinimumVersion unusable() {
  return {MinimumVersion::State::Unusable, ""};
}

// One line; what was cut off or is no text is damaged.
MinimumVersion parse(const std::string& content) {
  if (content.size() < 2 || content.back() != '\n') {
    return unusable();
  }
  std::string version = content.substr(0, content.size() - 1);
  const bool printable =
      std::all_of(version.begin(), version.end(), [](char c) { return c >= ' ' && c <= '~'; });
  return printable ? MinimumVersion{MinimumVersion::State::Known, std::move(version)} : unusable();
}

MinimumVersion readAt(int directory, const std::string& name) {
  std::string content;
  switch (base::readFileAt(directory, name, kLongestVersion + 1, content)) {
    case 0:
      return parse(content);
    case ENOENT:
      return {};
    default:
      return unusable();
  }
}

FileDescriptor openDirectory(const std::string& path) {
  return FileDescriptor(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
}

// 0 when it is there afterwards, also after a power cut. Who made it may have been
// killed before the disk had it.
int makeDirectory(const std::string& path) {
  const bool made = ::mkdir(path.c_str(), 0755) == 0;
  if (made ? ::chmod(path.c_str(), 0755) != 0 : errno != EEXIST) {  // whatever the umask is
    return errno;
  }
  const FileDescriptor parent = openDirectory(std::filesystem::path(path).parent_path());
  return parent ? base::syncDirectory(parent.get()) : errno;
}

int makeDirectories(const std::string& path) {
  const std::string parent = std::filesystem::path(path).parent_path();
  if (const int error = makeDirectory(parent); error != 0) {
    return error;
  }
  return makeDirectory(path);
}

bool isReached(const MinimumVersion& noted, const std::string& minimum) {
  return noted.state == MinimumVersion::State::Known && !isOlder(noted.version, minimum);
}

int raiseAt(int directory, const Statements& statements) {
  const MinimumVersion noted = readAt(directory, statements.name);
  if (noted.state == MinimumVersion::State::Unusable) {
    return EBADMSG;
  }
  if (isReached(noted, statements.minimumVersion)) {
    return 0;
  }
  return base::replaceFileAt(directory, statements.name, statements.minimumVersion + "\n", true);
}

// Held until it is closed: two that raise one after the other never lower.
FileDescriptor lock(int directory) {
  FileDescriptor file(::openat(directory, kLockName, O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, kLockMode));
  while (file && ::flock(file.get(), LOCK_EX) != 0) {
    if (errno != EINTR) {
      file.reset();
    }
  }
  return file;
}

}  // namespace

MinimumVersion readMinimumVersion(const std::string& directory, const std::string& name) {
  const FileDescriptor opened = openDirectory(directory);
  if (!opened) {
    return errno == ENOENT ? MinimumVersion() : unusable();
  }
  return readAt(opened.get(), name);
}

int raiseMinimumVersion(const std::string& directory, const Statements& statements) {
  // Most packages raise nothing: then nothing is locked or written.
  if (statements.minimumVersion.empty() ||
      isReached(readMinimumVersion(directory, statements.name), statements.minimumVersion)) {
    return 0;
  }
  if (const int error = makeDirectories(directory); error != 0) {
    return error;
  }
  const FileDescriptor opened = openDirectory(directory);
  const FileDescriptor locked = opened ? lock(opened.get()) : FileDescriptor();
  return locked ? raiseAt(opened.get(), statements) : errno;
}

}  // namespace fwpackage
