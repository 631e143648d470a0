// SPDX-License-Identifier: Apache-2.0
#include "taking.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <exception>
#include <filesystem>
#include <iterator>
#include <vector>

#include "device-paths.h"
#include "device-policy.h"
#include "image-signature.h"
#include "refusal.h"
#include "system-error.h"
#include "whole-file.h"

namespace updated {
namespace {

namespace fs = std::filesystem;

using base::FileDescriptor;
using fwpackage::SignatureReport;
using fwpackage::Verdict;

constexpr std::size_t kBlock = std::size_t{256} << 10;
constexpr std::int64_t kSpaceReserve = std::int64_t{1} << 20;  // stays free
// No firmware and no package is called so, and no update looks there.
constexpr char kUnfinished[] = ".incoming";

// In the order of the enumeration: what everything of a kind lies in.
constexpr const char* kPlaces[] = {fwpaths::kPackageImages, kIncomingDirectory, fwpaths::kSboxImages};

struct NotTaken {
  const char* error;
  std::string sentence;
  std::string remedy;
};

constexpr char kOtherFile[] = "Get the file again, and hand it over when it is whole.";

constexpr struct {
  Verdict verdict;
  const char* remedy;
} kRemedies[] = {
    {Verdict::NoTrailer, "Get one that is signed; fw-pack makes it."},
    {Verdict::TooShort, "Get one that is signed; fw-pack makes it."},
    {Verdict::UnknownKey, "Get one for this set: whose packages it takes was decided when it was made."},
    {Verdict::RevokedKey, "Get one that is signed with a newer key."},
    {Verdict::OldFormat, "Get one that was made with a newer fw-pack."},
    {Verdict::UnusableList,
     "Have the set repaired: in revoked and format-1 of /usr/share/fw-update/keys each line is one key "
     "identifier, 16 hexadecimal digits."},
    {Verdict::OtherKind, "Hand it over as what it was made as."},
    {Verdict::OtherName, "Get the one for this component."},
    {Verdict::OtherModel, "Get the one for this set."},
    {Verdict::TooOld, "Get a newer one."},
    {Verdict::UnusableMinimum, "Look at the file of its name in /var/lib/fw-update/minimum-versions."},
};

const char* remedyFor(Verdict verdict) {
  const auto* const row = std::find_if(std::begin(kRemedies), std::end(kRemedies),
                                       [verdict](const auto& one) { return one.verdict == verdict; });
  return row == std::end(kRemedies) ? kOtherFile : row->remedy;
}

[[noreturn]] void fail(const std::string& what, int error) {
  throw NotTaken{kFailed, what + ": " + base::errnoText(error) + ".",
                 error == ENOSPC || error == EDQUOT ? "Make room on the set, and hand it over again."
                                                    : "See the set's file systems, and hand it over again."};
}

void require(bool done, const std::string& what) {
  if (!done) {
    fail(what, errno);
  }
}

// ---- Directories ------------------------------------------------------------------

FileDescriptor openDirectory(const std::string& path) {
  FileDescriptor directory(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  require(static_cast<bool>(directory), path + " cannot be opened");
  return directory;
}

void sync(const std::string& directory) {
  if (const int error = base::syncDirectory(openDirectory(directory).get()); error != 0) {
    fail(directory + " cannot be put on the disk", error);
  }
}

void makeDirectory(const std::string& path, mode_t mode) {
  const bool isMade = mkdir(path.c_str(), mode) == 0;
  require((isMade || errno == EEXIST) && (!isMade || chmod(path.c_str(), mode) == 0),
          path + " cannot be made");
  if (isMade) {
    sync(fs::path(path).parent_path());
  }
}

// What has not been checked yet: for nobody but its owner, and gone when this goes.
class Unfinished {
 public:
  explicit Unfinished(const std::string& place) : path_(fs::path(place) / kUnfinished) {
    removeIncoming(path_);
    require(mkdir(path_.c_str(), 0700) == 0, path_ + " cannot be made");
  }
  Unfinished(const Unfinished&) = delete;
  Unfinished& operator=(const Unfinished&) = delete;
  ~Unfinished() { removeIncoming(path_); }

  const std::string& path() const { return path_; }
  std::string of(const std::string& name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

// ---- Copying ----------------------------------------------------------------------

struct Part {
  std::string name;
  int file;
  std::int64_t size;
};

[[noreturn]] void refuse(const std::string& part, const std::string& what, const std::string& remedy) {
  throw NotTaken{kRefused, "What was handed over as " + part + " " + what + ".", remedy};
}

// Nothing but a regular file is read: others may never end, or be waited for.
Part lookedAt(const std::string& name, int file) {
  constexpr char kGiveFile[] = "Hand over a descriptor of the file itself that is open for reading.";
  const int flags = fcntl(file, F_GETFL);
  struct stat status = {};
  if (flags < 0 || (flags & O_PATH) != 0 || (flags & O_ACCMODE) == O_WRONLY || fstat(file, &status) != 0) {
    refuse(name, "is not open for reading", kGiveFile);
  }
  if (!S_ISREG(status.st_mode)) {
    refuse(name, "is no regular file", kGiveFile);
  }
  if (status.st_size == 0) {
    refuse(name, "is empty", kOtherFile);
  }
  if (status.st_size > largestOf(name)) {
    refuse(name, "is too large: it may have " + std::to_string(largestOf(name)) + " bytes",
           "Hand over the file that the kind has there.");
  }
  return {name, file, status.st_size};
}

std::vector<Part> partsOf(const HandOver& handOver) {
  std::vector<Part> parts;
  for (const auto& [name, file] : handOver.files) {
    parts.push_back(lookedAt(name, file.get()));
  }
  return parts;
}

void requireRoom(const std::string& directory, const std::vector<Part>& parts) {
  struct statvfs status = {};
  require(statvfs(directory.c_str(), &status) == 0, directory + " cannot be looked at");
  std::int64_t needed = kSpaceReserve;
  for (const Part& part : parts) {
    needed += part.size;
  }
  if (needed > static_cast<std::int64_t>(status.f_bavail) * static_cast<std::int64_t>(status.f_frsize)) {
    fail(directory + " has not the " + std::to_string(needed >> 20) + " MiB that are needed", ENOSPC);
  }
}

// As many bytes as the file had, and it must have no more and no fewer at the end.
void copyContent(const Part& part, int target) {
  std::vector<char> block(kBlock);
  std::int64_t copied = 0;
  while (copied < part.size) {
    const ssize_t count = pread(part.file, block.data(),
                                static_cast<std::size_t>(std::min<std::int64_t>(kBlock, part.size - copied)),
                                static_cast<off_t>(copied));
    if (count < 0 && errno == EINTR) {
      continue;
    }
    if (count <= 0) {
      refuse(part.name, count < 0 ? "cannot be read" : "became shorter while it was copied", kOtherFile);
    }
    if (const int error = base::writeAll(target, {block.data(), static_cast<std::size_t>(count)});
        error != 0) {
      fail("The copy cannot be written", error);
    }
    copied += count;
  }
  struct stat status = {};
  if (fstat(part.file, &status) != 0 || status.st_size != part.size) {
    refuse(part.name, "became larger while it was copied", kOtherFile);
  }
}

// On the disk afterwards; the descriptor is of the copy.
FileDescriptor copied(const std::vector<Part>& parts, const char* name, const std::string& path) {
  const auto part =
      std::find_if(parts.begin(), parts.end(), [name](const Part& one) { return one.name == name; });
  FileDescriptor copy(open(path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0644));
  require(copy && fchmod(copy.get(), 0644) == 0, "The copy cannot be made");
  copyContent(*part, copy.get());
  require(fsync(copy.get()) == 0, "The copy cannot be put on the disk");
  return copy;
}

// ---- Checking ---------------------------------------------------------------------

void requireValid(const SignatureReport& report) {
  if (report.verdict != Verdict::Valid) {
    throw NotTaken{kRefused,
                   std::string("It is refused: ") + fwpackage::infoOf(report.verdict).sentence + ".",
                   remedyFor(report.verdict)};
  }
}

void requireSigned(int copy, fwpackage::Kind kind, const std::string& name) {
  requireValid(
      fwpackage::checkSignature(copy, fwpackage::trustOfDevice(), fwpackage::wantedOnDevice(kind, name)));
}

// Before anything that was checked is in its place: what lies there has been noted.
void noteMinimum(const SignatureReport& report) {
  requireValid(report);
  if (const int error = fwpackage::noteApplied(report); error != 0) {
    fail("The minimum version that it states cannot be noted", error);
  }
}

// ---- Into its place ---------------------------------------------------------------

void moveTo(const std::string& from, const std::string& to) {
  require(rename(from.c_str(), to.c_str()) == 0, to + " cannot be put in place");
  sync(fs::path(to).parent_path());
}

// The directory with all that is in it, at once; what it replaces is where it was.
void putFolder(const std::string& from, const std::string& to) {
  const bool isDone =
      renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), RENAME_EXCHANGE) == 0 ||
      (errno == ENOENT && renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), RENAME_NOREPLACE) == 0);
  require(isDone, to + " cannot be put in place");
  sync(fs::path(to).parent_path());
}

std::string moveToFreeFolder(const std::string& from) {
  for (int number = 1;; ++number) {
    const std::string folder = std::string(kIncomingDirectory) + "/" + std::to_string(number);
    if (renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, folder.c_str(), RENAME_NOREPLACE) == 0) {
      sync(kIncomingDirectory);
      return folder;
    }
    require(errno == EEXIST, folder + " cannot be made");
  }
}

Taken takePackage(const HandOver& handOver, const std::vector<Part>& parts, const Unfinished& place) {
  const std::string file = handOver.package + ".img";
  const FileDescriptor copy = copied(parts, kPackagePart, place.of(file));
  noteMinimum(fwpackage::checkSignature(
      copy.get(), fwpackage::trustOfDevice(),
      fwpackage::wantedOnDevice(fwpackage::Kind::ExtensionPackage, handOver.package)));
  moveTo(place.of(file), std::string(fwpaths::kPackageImages) + file);
  return {};
}

// Its minimum version is noted when it has been applied.
Taken takeUsb(const HandOver& handOver, const std::vector<Part>& parts, const Unfinished& place) {
  const FileDescriptor copy = copied(parts, kPackagePart, place.of(handOver.firmware() + ".bin"));
  requireSigned(copy.get(), fwpackage::Kind::UsbPackage, handOver.firmware());
  sync(place.path());
  return {"", "", "", moveToFreeFolder(place.path())};
}

Taken takeImage(const HandOver& handOver, const std::vector<Part>& parts, const Unfinished& place) {
  const std::string folder = place.of(handOver.firmware());
  makeDirectory(folder, 0755);
  const FileDescriptor signature = copied(parts, kSignaturePart, place.of(kSignaturePart));
  const FileDescriptor information = copied(parts, kInformationPart, folder + "/" + kInformationPart);
  const FileDescriptor image = copied(parts, kImagePart, folder + "/" + handOver.firmware() + ".bin");
  noteMinimum(fwpackage::checkImageSignature(
      signature.get(), image.get(), information.get(), fwpackage::trustOfDevice(),
      fwpackage::wantedOnDevice(fwpackage::Kind::Image, handOver.firmware())));
  sync(folder);
  putFolder(folder, fwpaths::kSboxImages + handOver.firmware());
  return {};
}

// In the order of the enumeration.
constexpr Taken (*kWays[])(const HandOver& handOver, const std::vector<Part>& parts,
                           const Unfinished& place) = {takePackage, takeUsb, takeImage};

}  // namespace

Taken take(const HandOver& handOver) {
  try {
    const auto kind = static_cast<std::size_t>(handOver.kind);
    const std::vector<Part> parts = partsOf(handOver);
    if (handOver.kind == HandOverKind::Usb) {
      makeDirectory(fs::path(kIncomingDirectory).parent_path(), 0755);
      makeDirectory(kIncomingDirectory, 0700);
    }
    requireRoom(kPlaces[kind], parts);
    const Unfinished place(kPlaces[kind]);
    return kWays[kind](handOver, parts, place);
  } catch (const NotTaken& problem) {
    return {problem.error, problem.sentence, problem.remedy, ""};
  } catch (const std::exception& error) {
    return {kFailed, std::string("It cannot be taken: ") + error.what() + ".", "Hand it over again.", ""};
  }
}

void removeIncoming(const std::string& folder) {
  std::error_code ignored;
  fs::remove_all(folder, ignored);
}

void removeLeftovers(const std::set<std::string>& usedFolders) {
  for (const char* const place : kPlaces) {
    removeIncoming(fs::path(place) / kUnfinished);
  }
  std::error_code none;
  for (const auto& entry : fs::directory_iterator(kIncomingDirectory, none)) {
    if (usedFolders.count(entry.path().string()) == 0) {
      removeIncoming(entry.path().string());
    }
  }
}

}  // namespace updated
