#include "partial-image.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "errno-text.h"
#include "failure.h"
#include "privileged/safe-path.h"
#include "small-file.h"

namespace fwdownload {
namespace {

using fwplatform::ErrnoText;

// What a power cut can cost, and how often the disk is waited for.
constexpr std::int64_t kSyncEvery = std::int64_t{4} * 1024 * 1024;

Reason ReasonOf(int error) {
  switch (error) {
    case EACCES:
    case EPERM:
    case EROFS:
      return Reason::kNotPermitted;
    case ENOSPC:
    case EDQUOT:
      return Reason::kNoSpace;
    default:
      return Reason::kFileSystem;
  }
}

[[noreturn]] void Fail(const std::string& name, const char* what, int error) {
  throw Failure(ReasonOf(error), std::string(kPackagesDirectory) + "/" + name + " cannot be " + what + ": " +
                                     ErrnoText(error) + ".");
}

// Changes with every start of the system.
std::string BootId() {
  std::string id;
  fwplatform::ReadSmallFileAt(AT_FDCWD, "/proc/sys/kernel/random/boot_id", 128, id);
  return id;
}

// Until the system stops, what was written is in the file; afterwards only what was
// put on the disk can be relied on.
std::int64_t UsableOf(const PartNote& note) {
  return note.boot == BootId() ? note.origin.total : note.synced;
}

}  // namespace

PartialImage::PartialImage(const std::string& package, const std::string& url)
    : image_(package + ".img"), part_(image_ + ".part"), info_(part_ + ".info") {
  if (const int error = fwplatform::OpenDirectory(kPackagesDirectory, directory_); error != 0) {
    throw Failure(ReasonOf(error),
                  std::string(kPackagesDirectory) + " cannot be opened: " + ErrnoText(error) + ".");
  }
  Open();
  TakeUp(url);
}

// A file that has another name or another owner is not this download's.
void PartialImage::Open() {
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
  Remove(part_);
  if (!open(O_EXCL)) {
    Fail(part_, "written", errno);
  }
}

void PartialImage::TakeUp(const std::string& url) {
  std::string text;
  std::int64_t usable = 0;
  if (fwplatform::ReadSmallFileAt(directory_.get(), info_, kLargestNote, text) == 0) {
    const auto note = ParseNote(text);
    if (note && note->origin.url == url && size_ <= note->origin.total) {
      origin_ = note->origin;
      usable = UsableOf(*note);
    }
  }
  // At least one byte is asked for again: the server then says whether it still has
  // the same file.
  Truncate(std::min({size_, usable, std::max<std::int64_t>(origin_.total - 1, 0)}));
  synced_ = 0;
}

void PartialImage::Truncate(std::int64_t size) {
  if (ftruncate(file_.get(), size) != 0) {
    Fail(part_, "written", errno);
  }
  size_ = size;
  synced_ = std::min(synced_, size_);
}

void PartialImage::Begin(const Origin& origin) {
  // The old description goes first: it must never stand beside another file's bytes.
  Remove(info_);
  Truncate(0);
  origin_ = origin;
  if (!origin_.CanBeContinued()) {
    return;
  }
  WriteNote();
}

void PartialImage::WriteNote() {
  const std::string text = NoteText({origin_, synced_, BootId()});
  if (const int error = fwplatform::ReplaceSmallFileAt(directory_.get(), info_, text, true); error != 0) {
    Fail(info_, "written", error);
  }
}

void PartialImage::Append(const char* bytes, std::size_t count) {
  while (count > 0) {
    const ssize_t written = pwrite(file_.get(), bytes, count, size_);
    if (written < 0 && errno == EINTR) {
      continue;
    }
    if (written < 0) {
      Fail(part_, "written", errno);
    }
    bytes += written;
    count -= static_cast<std::size_t>(written);
    size_ += written;
  }
  if (size_ - synced_ >= kSyncEvery && origin_.CanBeContinued()) {
    Sync();
  }
}

void PartialImage::Sync() {
  if (fdatasync(file_.get()) != 0) {
    Fail(part_, "written", errno);
  }
  synced_ = size_;
  WriteNote();
}

void PartialImage::Remove(const std::string& name) {
  if (unlinkat(directory_.get(), name.c_str(), 0) != 0 && errno != ENOENT) {
    Fail(name, "removed", errno);
  }
}

void PartialImage::Discard() {
  Remove(info_);
  Remove(part_);
  size_ = synced_ = 0;
}

int PartialImage::Finish() {
  if (fsync(file_.get()) != 0 || fstat(file_.get(), &finished_) != 0) {
    Fail(part_, "written", errno);
  }
  return file_.get();
}

bool PartialImage::IsStillFinished(const std::string& name) const {
  struct stat now = {};
  return fstatat(directory_.get(), name.c_str(), &now, AT_SYMLINK_NOFOLLOW) == 0 &&
         now.st_dev == finished_.st_dev && now.st_ino == finished_.st_ino && now.st_nlink == 1 &&
         now.st_size == finished_.st_size && now.st_mtim.tv_sec == finished_.st_mtim.tv_sec &&
         now.st_mtim.tv_nsec == finished_.st_mtim.tv_nsec;
}

void PartialImage::Publish() {
  const auto requireFinished = [this](const std::string& name) {
    if (!IsStillFinished(name)) {
      throw Failure(Reason::kFileSystem, std::string(kPackagesDirectory) + "/" + name +
                                             " was changed by another process; it is not used.");
    }
  };
  requireFinished(part_);
  Remove(info_);
  if (renameat(directory_.get(), part_.c_str(), directory_.get(), image_.c_str()) != 0) {
    Fail(image_, "replaced", errno);
  }
  try {
    requireFinished(image_);  // what had the name of the part a moment before
  } catch (const Failure&) {
    Remove(image_);
    throw;
  }
  const fwplatform::UniqueFd directory(openat(directory_.get(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!directory || fsync(directory.get()) != 0) {
    Fail(image_, "put on the disk", errno);
  }
}

std::int64_t PartialImage::FreeSpace() const {
  struct statvfs status = {};
  if (fstatvfs(directory_.get(), &status) != 0) {
    Fail(part_, "written", errno);
  }
  return static_cast<std::int64_t>(status.f_bavail) * static_cast<std::int64_t>(status.f_frsize);
}

}  // namespace fwdownload
