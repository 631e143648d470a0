// SPDX-License-Identifier: Apache-2.0
#include "secret-file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>

#include "file-descriptor.h"

namespace secret {
namespace {

constexpr std::int64_t kLargestSecret = 65536;
constexpr mode_t kOthersMask = 077;

[[noreturn]] void fail(const std::string& path) {
  throw Error("the key file " + path + " cannot be read: " + std::strerror(errno));
}

std::string warningFor(const std::string& path, mode_t mode) {
  if ((mode & kOthersMask) == 0) {
    return "";
  }
  char octal[8];
  std::snprintf(octal, sizeof octal, "%04o", static_cast<unsigned int>(mode & 07777U));
  return "others than its owner may use the key file " + path + " (mode " + octal + "); run: chmod 600 " +
         path;
}

}  // namespace

Secret::~Secret() {
  if (!bytes_.empty()) {
    ::explicit_bzero(bytes_.data(), bytes_.size());
  }
}

Secret readSecretFile(const std::string& path) {
  // Non-blocking, so that a FIFO cannot hold up the tool.
  const base::FileDescriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  struct stat status = {};
  if (!file || ::fstat(file.get(), &status) != 0) {
    fail(path);
  }
  if (!S_ISREG(status.st_mode)) {
    throw Error("the key file " + path + " is no regular file");
  }
  if (status.st_size > kLargestSecret) {
    throw Error("the key file " + path + " is too long to be a key");
  }
  Secret content(static_cast<std::size_t>(status.st_size));
  std::size_t done = 0;
  while (done < content.size()) {
    const ssize_t got = ::read(file.get(), content.data() + done, content.size() - done);
    if (got < 0 && errno == EINTR) {
      continue;
    }
    if (got <= 0) {
      errno = got == 0 ? EIO : errno;
      fail(path);
    }
    done += static_cast<std::size_t>(got);
  }
  content.warning = warningFor(path, status.st_mode);
  return content;
}

Secret readPackageKey(const std::string& path) {
  Secret key = readSecretFile(path);
  if (key.size() != kPackageKeySize) {
    throw Error("the key file " + path + " holds " + std::to_string(key.size()) +
                " bytes; a package key is " + std::to_string(kPackageKeySize) + " raw bytes");
  }
  return key;
}

}  // namespace secret
