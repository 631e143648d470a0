// SPDX-License-Identifier: Apache-2.0
#include "artifact-store.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <memory>
#include <vector>

#include "system-error.h"
#include "whole-file.h"

namespace fleet {
namespace {

// Of a file system that the rest of the set writes to as well.
constexpr int kPartsForReserve = 20;
constexpr std::int64_t kLeastReserve = std::int64_t{1} << 20;
constexpr std::int64_t kMostReserve = std::int64_t{256} << 20;
constexpr std::size_t kLongestMark = 256;
constexpr char kMark[] = ".mark";
constexpr std::size_t kBlock = std::size_t{64} * 1024;

StoreTrouble troubleOf(int error) {
  return error == ENOSPC || error == EDQUOT ? StoreTrouble::NoSpace : StoreTrouble::Disk;
}

[[noreturn]] void failOn(const std::string& name, const char* what, int error) {
  throw StoreFailure(troubleOf(error), name + " cannot be " + what + ": " + base::errnoText(error) + ".");
}

fwpackage::DigestContext newDigest() {
  fwpackage::DigestContext context(EVP_MD_CTX_new());
  if (!context || EVP_DigestInit_ex(context.get(), EVP_sha256(), nullptr) != 1) {
    throw StoreFailure(StoreTrouble::Disk, "No SHA-256 can be computed.");
  }
  return context;
}

void add(const fwpackage::DigestContext& context, const char* bytes, std::size_t count) {
  if (EVP_DigestUpdate(context.get(), bytes, count) != 1) {
    throw StoreFailure(StoreTrouble::Disk, "No SHA-256 can be computed.");
  }
}

std::string digitsOf(const fwpackage::DigestContext& context) {
  unsigned char bytes[EVP_MAX_MD_SIZE] = {};
  unsigned int count = 0;
  if (EVP_DigestFinal_ex(context.get(), bytes, &count) != 1) {
    throw StoreFailure(StoreTrouble::Disk, "No SHA-256 can be computed.");
  }
  std::string digits;
  for (unsigned int at = 0; at < count; ++at) {
    digits += "0123456789abcdef"[bytes[at] >> 4U];
    digits += "0123456789abcdef"[bytes[at] & 15U];
  }
  return digits;
}

// From its first byte to its end; how many there were.
std::int64_t addFile(const fwpackage::DigestContext& context, const base::FileDescriptor& file,
                     const std::string& name) {
  std::int64_t size = 0;
  std::string block(kBlock, '\0');
  for (;;) {
    const ssize_t count = pread(file.get(), block.data(), block.size(), size);
    if (count < 0 && errno == EINTR) {
      continue;
    }
    if (count < 0) {
      failOn(name, "read", errno);
    }
    if (count == 0) {
      return size;
    }
    add(context, block.data(), static_cast<std::size_t>(count));
    size += count;
  }
}

struct CloseDirectory {
  void operator()(DIR* entries) const { closedir(entries); }
};

bool isOwnFile(int file) {
  struct stat status = {};
  return fstat(file, &status) == 0 && S_ISREG(status.st_mode) && status.st_nlink == 1 &&
         status.st_uid == geteuid();
}

}  // namespace

std::int64_t reserveOf(std::int64_t all) {
  return std::clamp(all / kPartsForReserve, kLeastReserve, kMostReserve);
}

ArtifactStore::ArtifactStore(const std::string& directory) {
  if (mkdir(directory.c_str(), 0700) != 0 && errno != EEXIST) {
    failOn(directory, "made", errno);
  }
  directory_.reset(open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  if (!directory_) {
    failOn(directory, "opened", errno);
  }
}

bool ArtifactStore::has(const std::string& sha256, std::int64_t size) const {
  const base::FileDescriptor file(
      openat(directory_.get(), sha256.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
  if (!file || !isOwnFile(file.get())) {
    return false;
  }
  const fwpackage::DigestContext context = newDigest();
  return addFile(context, file, sha256) == size && digitsOf(context) == sha256;
}

void ArtifactStore::requireSpace(std::int64_t needed) const {
  struct statvfs status = {};
  if (fstatvfs(directory_.get(), &status) != 0) {
    failOn(directory_.target(), "looked at", errno);
  }
  const auto block = static_cast<std::int64_t>(status.f_frsize);
  const std::int64_t free = static_cast<std::int64_t>(status.f_bavail) * block;
  const std::int64_t reserve = reserveOf(static_cast<std::int64_t>(status.f_blocks) * block);
  const std::int64_t usable = std::max<std::int64_t>(free - reserve, 0);
  if (needed > usable) {
    throw StoreFailure(StoreTrouble::NoSpace, "There is no room for the update: it needs " +
                                                  std::to_string(needed) + " bytes, and " +
                                                  std::to_string(usable) + " are free for it.");
  }
}

void ArtifactStore::remove(const std::string& sha256) const {
  for (const std::string& name : {sha256, sha256 + ".part", sha256 + kMark}) {
    if (unlinkat(directory_.get(), name.c_str(), 0) != 0 && errno != ENOENT) {
      failOn(name, "removed", errno);
    }
  }
}

void ArtifactStore::removeOthers(const std::set<std::string>& needed) const {
  const int again = openat(directory_.get(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  const std::unique_ptr<DIR, CloseDirectory> entries(again >= 0 ? fdopendir(again) : nullptr);
  if (!entries) {
    failOn("The store", "looked at", errno);
  }
  std::vector<std::string> names;
  while (const dirent* const entry = readdir(entries.get())) {
    const std::string name = entry->d_name;
    if (name[0] != '.' && needed.count(name.substr(0, name.find('.'))) == 0) {
      names.push_back(name);
    }
  }
  for (const std::string& name : names) {
    unlinkat(directory_.get(), name.c_str(), 0);  // what stays is looked at again
  }
}

std::int64_t ArtifactStore::received(const std::string& sha256) const {
  for (const std::string& name : {sha256, sha256 + ".part"}) {
    struct stat status = {};
    if (fstatat(directory_.get(), name.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0) {
      return status.st_size;
    }
  }
  return 0;
}

PartialArtifact::PartialArtifact(const ArtifactStore& store, const std::string& sha256, std::int64_t size)
    : store_(store), name_(sha256), part_(sha256 + ".part"), size_(size) {
  open();
  takeUp();
}

void PartialArtifact::fail(const char* what, int error) const {
  failOn(part_, what, error);
}

// What has this name and is not this user's own file gives way.
void PartialArtifact::open() {
  constexpr int kFlags = O_RDWR | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;
  file_.reset(openat(store_.directory(), part_.c_str(), kFlags, 0600));
  if (file_ && isOwnFile(file_.get())) {
    return;
  }
  if (unlinkat(store_.directory(), part_.c_str(), 0) != 0 && errno != ENOENT) {
    fail("removed", errno);
  }
  file_.reset(openat(store_.directory(), part_.c_str(), kFlags | O_EXCL, 0600));
  if (!file_) {
    fail("written", errno);
  }
}

// After a power cut its end may be other bytes than were sent; then the hash is wrong in the end, and
// it is all received again.
void PartialArtifact::takeUp() {
  digest_ = newDigest();
  received_ = addFile(digest_, file_, part_);
  if (received_ > size_) {
    restart();
  }
  if (received_ == 0 || base::readFileAt(store_.directory(), name_ + kMark, kLongestMark, mark_) != 0) {
    mark_.clear();
  }
}

void PartialArtifact::mark(const std::string& mark) {
  if (mark == mark_ || mark.size() > kLongestMark) {
    return;
  }
  const bool isKept = base::replaceFileAt(store_.directory(), name_ + kMark, mark, false) == 0;
  mark_ = isKept ? mark : "";
}

void PartialArtifact::restart() {
  if (ftruncate(file_.get(), 0) != 0) {
    fail("written", errno);
  }
  received_ = 0;
  mark_.clear();
  digest_ = newDigest();
}

void PartialArtifact::append(const char* bytes, std::size_t count) {
  if (static_cast<std::int64_t>(count) > missing()) {
    discard("The server sent more than the " + std::to_string(size_) + " bytes that it had announced.");
  }
  while (count > 0) {
    const ssize_t written = pwrite(file_.get(), bytes, count, received_);
    if (written < 0 && errno == EINTR) {
      continue;
    }
    if (written < 0) {
      fail("written", errno);
    }
    add(digest_, bytes, static_cast<std::size_t>(written));
    bytes += written;
    count -= static_cast<std::size_t>(written);
    received_ += written;
  }
}

void PartialArtifact::discard(const std::string& sentence) {
  store_.remove(name_);
  throw StoreFailure(StoreTrouble::Wrong, sentence);
}

void PartialArtifact::finish() {
  if (received_ < size_) {
    throw StoreFailure(StoreTrouble::Incomplete, "Only " + std::to_string(received_) + " of " +
                                                     std::to_string(size_) + " bytes have come.");
  }
  if (const std::string seen = digitsOf(digest_); seen != name_) {
    discard("The SHA-256 of what came begins with " + seen.substr(0, 12) + ", and not with " +
            name_.substr(0, 12) + ".");
  }
  if (fsync(file_.get()) != 0) {
    fail("put on the disk", errno);
  }
  if (renameat(store_.directory(), part_.c_str(), store_.directory(), name_.c_str()) != 0) {
    fail("renamed", errno);
  }
  unlinkat(store_.directory(), (name_ + kMark).c_str(), 0);  // without its part it stands for nothing
  if (const int error = base::syncDirectory(store_.directory()); error != 0) {
    fail("put on the disk", error);
  }
}

}  // namespace fleet
