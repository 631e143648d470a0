// SPDX-License-Identifier: Apache-2.0
#include "partial-image.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "failure.h"
#include "safe-path.h"
#include "system-error.h"
#include "whole-file.h"

namespace fwdownload {
namespace {

using base::errnoText;

// What a power cut can cost, and how often the disk is waited for.
constexpr std::int64_t kSyncEvery = std::int64_t{4} * 1024 * 1024;

Reason reasonOf(int error) {
  switch (error) {
    case EACCES:
    case EPERM:
    case EROFS:
      return Reason::NotPermitted;
    case ENOSPC:
    case EDQUOT:
      return Reason::NoSpace;
    default:
      return Reason::FileSystem;
  }
}

[[noreturn]] void fail(const std::string& name, const char* what, int error) {
  throw Failure(reasonOf(error), std::string(kPackagesDirectory) + "/" + name + " cannot be " + what + ": " +
                                     errnoText(error) + ".");
}

// Changes with every start of the system.
std::string bootId() {
  std::string id;
  base::readFileAt(AT_FDCWD, "/proc/sys/kernel/random/boot_id", 128, id);
  return id;
}

// Until the system stops, what was written is in the file; afterwards only what was
// put on the disk can be relied on.
std::int64_t usableOf(const PartNote& note) {
  return note.boot == bootId() ? note.origin.total : note.synced;
}

}  // namespace

PartialImage::PartialImage(const std::string& package, const std::string& url)
    : image_(package + ".img"), part_(image_ + ".part"), info_(part_ + ".info") {
  if (const int error = fwplatform::openDirectory(kPackagesDirectory, directory_); error != 0) {
    throw Failure(reasonOf(error),
                  std::string(kPackagesDirectory) + " cannot be opened: " + errnoText(error) + ".");
  }
  open();
  takeUp(url);
}

// A file that has another name or another owner is not this download's.
void PartialImage::open() {
  const auto open = [this](int flags) {
    file_.reset(openat(directory_.get(), part_.c_str(),
                       O_RDWR | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC | flags, 0644));
    return static_cast<bool>(file_);
  };
  struct stat status = {};
  if (open(0) && fstat(file_.get(), &status) == 0 && S_ISREG(status.st_mode) && status.st_nlink == 1 &&
      status.st_uid == geteuid()) {
    size_ = status.st_size;
    return;
  }
  remove(part_);
  if (!open(O_EXCL)) {
    fail(part_, "written", errno);
  }
}

void PartialImage::takeUp(const std::string& url) {
  std::string text;
  std::int64_t usable = 0;
  if (base::readFileAt(directory_.get(), info_, kLargestNote, text) == 0) {
    const auto note = parseNote(text);
    if (note && note->origin.url == url && size_ <= note->origin.total) {
      origin_ = note->origin;
      usable = usableOf(*note);
    }
  }
  // At least one byte is asked for again: the server then says whether it still has
  // the same file.
  truncate(std::min({size_, usable, std::max<std::int64_t>(origin_.total - 1, 0)}));
  synced_ = 0;
}

void PartialImage::truncate(std::int64_t size) {
  if (ftruncate(file_.get(), size) != 0) {
    fail(part_, "written", errno);
  }
  size_ = size;
  synced_ = std::min(synced_, size_);
}

void PartialImage::begin(const Origin& origin) {
  // The old description goes first: it must never stand beside another file's bytes.
  remove(info_);
  truncate(0);
  origin_ = origin;
  if (!origin_.canBeContinued()) {
    return;
  }
  writeNote();
}

void PartialImage::writeNote() {
  const std::string text = noteText({origin_, synced_, bootId()});
  if (const int error = base::replaceFileAt(directory_.get(), info_, text, true); error != 0) {
    fail(info_, "written", error);
  }
}

void PartialImage::append(const char* bytes, std::size_t count) {
  while (count > 0) {
    const ssize_t written = pwrite(file_.get(), bytes, count, size_);
    if (written < 0 && errno == EINTR) {
      continue;
    }
    if (written < 0) {
      fail(part_, "written", errno);
    }
    bytes += written;
    count -= static_cast<std::size_t>(written);
    size_ += written;
  }
  if (size_ - synced_ >= kSyncEvery && origin_.canBeContinued()) {
    sync();
  }
}

void PartialImage::sync() {
  if (fdatasync(file_.get()) != 0) {
    fail(part_, "written", errno);
  }
  synced_ = size_;
  writeNote();
}

void PartialImage::remove(const std::string& name) {
  if (unlinkat(directory_.get(), name.c_str(), 0) != 0 && errno != ENOENT) {
    fail(name, "removed", errno);
  }
}

void PartialImage::discard() {
  remove(info_);
  remove(part_);
  size_ = synced_ = 0;
}

int PartialImage::finish() {
  if (fsync(file_.get()) != 0 || fstat(file_.get(), &finished_) != 0) {
    fail(part_, "written", errno);
  }
  return file_.get();
}

bool PartialImage::isStillFinished(const std::string& name) const {
  struct stat now = {};
  return fstatat(directory_.get(), name.c_str(), &now, AT_SYMLINK_NOFOLLOW) == 0 &&
         now.st_dev == finished_.st_dev && now.st_ino == finished_.st_ino && now.st_nlink == 1 &&
         now.st_size == finished_.st_size && now.st_mtim.tv_sec == finished_.st_mtim.tv_sec &&
         now.st_mtim.tv_nsec == finished_.st_mtim.tv_nsec;
}

void PartialImage::publish() {
  const auto requireFinished = [this](const std::string& name) {
    if (!isStillFinished(name)) {
      throw Failure(Reason::FileSystem, std::string(kPackagesDirectory) + "/" + name +
                                            " was changed by another process; it is not used.");
    }
  };
  requireFinished(part_);
  remove(info_);
  if (renameat(directory_.get(), part_.c_str(), directory_.get(), image_.c_str()) != 0) {
    fail(image_, "replaced", errno);
  }
  try {
    requireFinished(image_);  // what had the name of the part a moment before
  } catch (const Failure&) {
    remove(image_);
    throw;
  }
  if (const int error = base::syncDirectory(directory_.get()); error != 0) {
    fail(image_, "put on the disk", error);
  }
}

std::int64_t PartialImage::freeSpace() const {
  struct statvfs status = {};
  if (fstatvfs(directory_.get(), &status) != 0) {
    fail(part_, "written", errno);
  }
  return static_cast<std::int64_t>(status.f_bavail) * static_cast<std::int64_t>(status.f_frsize);
}

}  // namespace fwdownload
