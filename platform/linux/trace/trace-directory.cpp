// SPDX-License-Identifier: Apache-2.0
#include "trace/trace-directory.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>
#include <string_view>
#include <vector>

#include "trace/trace-format.h"

namespace fwplatform::trace {
namespace {

constexpr mode_t kDirectoryMode = 0755;
constexpr mode_t kFileMode = 0640;
constexpr std::int64_t kMillisecond = 1000000;
// A file is empty until its process has locked it; left so, it is rubbish.
constexpr std::int64_t kEmptySeconds = 60;
constexpr int kNameAttempts = 100;

struct CloseDirectory {
  void operator()(DIR* directory) const { closedir(directory); }
};

struct OldFile {
  std::string name;
  std::int64_t modified;
  std::uint64_t bytes;
  bool empty;
};

std::string fileNamePart(const std::string& processName) {
  constexpr char kKept[] = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789_-";
  std::string part = processName;
  for (char& c : part) {
    if (c == '\0' || std::strchr(kKept, c) == nullptr) {
      c = '_';
    }
  }
  return part.empty() ? "_" : part;
}

bool isTraceName(std::string_view name) {
  constexpr std::string_view kSuffix = kFileSuffix;
  return name.size() > kSuffix.size() && name.substr(name.size() - kSuffix.size()) == kSuffix;
}

std::vector<OldFile> traceFilesIn(int directory) {
  std::vector<OldFile> files;
  base::FileDescriptor copy(openat(directory, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  const std::unique_ptr<DIR, CloseDirectory> entries(copy ? fdopendir(copy.get()) : nullptr);
  if (!entries) {
    return files;
  }
  copy.release();
  while (const dirent* entry = readdir(entries.get())) {
    struct stat status = {};
    if (isTraceName(entry->d_name) && fstatat(directory, entry->d_name, &status, AT_SYMLINK_NOFOLLOW) == 0 &&
        S_ISREG(status.st_mode)) {
      files.push_back({entry->d_name, status.st_mtim.tv_sec,
                       static_cast<std::uint64_t>(status.st_blocks) * 512, status.st_size == 0});
    }
  }
  return files;
}

bool mayBeRemoved(int directory, const OldFile& file, std::int64_t now) {
  if (file.empty) {
    return file.modified < now - kEmptySeconds;
  }
  const base::FileDescriptor fd(
      openat(directory, file.name.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
  return fd && !isOfLiveProcess(fd.get());
}

}  // namespace

base::FileDescriptor openTraceDirectory(const std::string& path) {
  if (mkdir(path.c_str(), kDirectoryMode) != 0 && errno != EEXIST && errno != EROFS) {
    return base::FileDescriptor();
  }
  return base::FileDescriptor(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
}

base::FileDescriptor createTraceFile(int directory, const std::string& processName, std::int64_t realTime) {
  const std::string start = fileNamePart(processName) + '-' + std::to_string(getpid()) + '-';
  base::FileDescriptor file;
  for (int i = 0; i < kNameAttempts && !file; ++i) {
    const std::string name = start + std::to_string(realTime / kMillisecond + i) + kFileSuffix;
    file.reset(
        openat(directory, name.c_str(), O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, kFileMode));
    if (!file && errno != EEXIST) {
      break;
    }
  }
  if (file && flock(file.get(), LOCK_EX | LOCK_NB) != 0) {
    file.reset();
  }
  return file;
}

bool isOfLiveProcess(int file) {
  // Shared, so that two that ask at once do not take each other for the process.
  if (flock(file, LOCK_SH | LOCK_NB) != 0) {
    return errno == EWOULDBLOCK;
  }
  flock(file, LOCK_UN);
  return false;
}

void cleanUp(int directory, std::int64_t now, std::int64_t maxAgeSeconds, std::uint64_t maxBytes) {
  std::vector<OldFile> files = traceFilesIn(directory);
  std::sort(files.begin(), files.end(),
            [](const OldFile& a, const OldFile& b) { return a.modified < b.modified; });
  std::uint64_t total = 0;
  for (const OldFile& file : files) {
    total += file.bytes;
  }
  for (const OldFile& file : files) {
    const bool wanted = file.modified >= now - maxAgeSeconds && total <= maxBytes;
    if (!wanted && mayBeRemoved(directory, file, now) && unlinkat(directory, file.name.c_str(), 0) == 0) {
      total -= file.bytes;
    }
  }
}

}  // namespace fwplatform::trace
