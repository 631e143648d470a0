// SPDX-License-Identifier: Apache-2.0
#include "usb-package.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cstring>

#include "fw-update-cipher.h"

namespace {

constexpr std::int64_t kSmallestPackage = 614;  // IV, version block, trailer

bool isSame(const timespec& a, const timespec& b) {
  return a.tv_sec == b.tv_sec && a.tv_nsec == b.tv_nsec;
}

bool isSame(const struct stat& a, const struct stat& b) {
  return a.st_dev == b.st_dev && a.st_ino == b.st_ino && a.st_size == b.st_size &&
         isSame(a.st_mtim, b.st_mtim) && isSame(a.st_ctim, b.st_ctim);
}

}  // namespace

OpenPackage::OpenPackage(const std::string& path)
    : path_(path), file_(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY)) {
  if (!file_.isOpen() || fstat(file_.get(), &opened_) != 0 || S_ISFIFO(opened_.st_mode)) {
    return;
  }
  // A device has no size; its first bytes count as an IV all the same.
  left_ = std::max<std::int64_t>(opened_.st_size, static_cast<std::int64_t>(sizeof(PackageIv)));
  stream_.reset(fopencookie(this, "rb", {deliver, nullptr, nullptr, nullptr}));
}

bool OpenPackage::isUnchanged() const {
  struct stat open = {};
  struct stat there = {};
  return fstat(file_.get(), &open) == 0 && stat(path_.c_str(), &there) == 0 && isSame(open, opened_) &&
         isSame(there, opened_);
}

FILE* OpenPackage::read() {
  check_.emplace(path_, file_.get());
  return stream_.get();
}

bool OpenPackage::isWhatWasVerified() {
  return check_->passes() && isUnchanged();
}

void OpenPackage::close() {
  stream_.reset();
  file_ = FileDescriptor(-1);
}

// The stream's read: what goes into its buffer, or straight into the reader's, is what
// the verifier gets.
ssize_t OpenPackage::deliver(void* package, char* buffer, size_t size) {
  OpenPackage& self = *static_cast<OpenPackage*>(package);
  const std::uint64_t wanted = std::min<std::uint64_t>(size, static_cast<std::uint64_t>(self.left_));
  const ssize_t got = ::read(self.file_.get(), buffer, static_cast<std::size_t>(wanted));
  if (got > 0) {
    self.left_ -= got;
    self.check_->add(reinterpret_cast<const unsigned char*>(buffer), static_cast<std::size_t>(got));
  }
  return got;
}

std::int64_t packageSize(const std::string& path) {
  struct stat status = {};
  return stat(path.c_str(), &status) == 0 ? static_cast<std::int64_t>(status.st_size) : 0;
}

bool readPackageIv(FILE* file, PackageIv& iv) {
  return std::fread(iv.data(), 1, iv.size(), file) == iv.size();
}

const unsigned char* decryptPackage(FILE* file, const unsigned char* key, const PackageIv& iv,
                                    std::int64_t size, std::int64_t count, int& length) {
  if (size < kSmallestPackage || size > INT_MAX) {
    return nullptr;
  }
  return aes_256_cbc_all(file, key, iv.data(), 0, static_cast<int>(count), length);
}

VersionBlock versionBlock(const unsigned char* plaintext, int length) {
  VersionBlock block{};
  std::memcpy(block.data(), plaintext, static_cast<std::size_t>(std::clamp(length, 0, kVersionBlockSize)));
  return block;
}
