// SPDX-License-Identifier: Apache-2.0
#include "trace-store.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <optional>

#include "file-descriptor.h"
#include "trace/trace-directory.h"
#include "trace/trace-format.h"

namespace tracetool {
namespace {

using namespace fwplatform::trace;
namespace fs = std::filesystem;

// What the largest settings of a process with sixteen threads come to.
constexpr std::uint64_t kLargestFile = std::uint64_t{256} << 20;
constexpr std::uint64_t kLargestTotal = kLargestFile;  // of all files of a directory that are read at once

std::string problemOf(int fd, const struct stat& status) {
  if (fd < 0) {
    return std::string("The file cannot be opened: ") + std::strerror(errno) + ".";
  }
  if (!S_ISREG(status.st_mode)) {
    return "This is no file.";
  }
  if (static_cast<std::uint64_t>(status.st_size) > kLargestFile) {
    return "The file is too large for a trace: more than 256 MiB.";
  }
  return "";
}

}  // namespace

bool startsEarlier(const TraceFile& a, const TraceFile& b) {
  return a.trace.start != b.trace.start ? a.trace.start < b.trace.start : a.path < b.path;
}

BytesOfFile::BytesOfFile(const std::string& path)
    : fd_(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK)), status_() {
  if (fd_ && fstat(fd_.get(), &status_) != 0) {
    fd_ = base::FileDescriptor();
  }
  problem_ = problemOf(fd_.get(), status_);
}

std::size_t BytesOfFile::readAt(std::uint64_t offset, char* to, std::size_t wanted) const {
  const auto size = static_cast<std::size_t>(
      std::min<std::uint64_t>(wanted, this->size() - std::min(offset, this->size())));
  std::size_t done = 0;
  while (done < size) {
    const ssize_t count = pread(fd_.get(), to + done, size - done, static_cast<off_t>(offset + done));
    if (count < 0 && errno == EINTR) {
      continue;
    }
    if (count <= 0) {
      break;
    }
    done += static_cast<std::size_t>(count);
  }
  return done;
}

bool BytesOfFile::isOfLiveProcess() const {
  // An empty file is not asked: its process is about to take the lock.
  return size() > 0 && fwplatform::trace::isOfLiveProcess(fd_.get());
}

TraceFile openTrace(const std::string& path) {
  TraceFile file;
  file.path = path;
  const BytesOfFile bytes(path);
  file.problem = bytes.problem();
  if (file.problem.empty()) {
    file.bytes = bytes.size();
    file.inode = bytes.inode();
    file.alive = bytes.isOfLiveProcess();
    ReadResult read = readOutline(bytes);
    file.problem = read.problem;
    file.trace = std::move(read.trace);
  }
  return file;
}

TraceFile loadTrace(const std::string& path) {
  TraceFile file = openTrace(path);
  if (file.problem.empty()) {
    readRecords(BytesOfFile(path), file.trace);
  }
  return file;
}

std::vector<FoundTrace> tracesIn(const std::string& directory, std::string& problem) {
  std::vector<FoundTrace> found;
  std::error_code error;
  for (fs::directory_iterator at(directory, error), end; !error && at != end; at.increment(error)) {
    if (at->path().extension() == kFileSuffix) {
      struct stat status = {};
      stat(at->path().c_str(), &status);
      found.push_back({at->path().string(), status.st_ino});
    }
  }
  problem = error ? error.message() : "";
  return found;
}

std::vector<TraceFile> openTraces(const std::string& directory, std::string& problem) {
  std::vector<TraceFile> files;
  for (const FoundTrace& found : tracesIn(directory, problem)) {
    files.push_back(openTrace(found.path));
  }
  std::sort(files.begin(), files.end(), startsEarlier);
  return files;
}

void loadRecords(std::vector<TraceFile>& files) {
  std::uint64_t total = 0;
  for (auto file = files.rbegin(); file != files.rend(); ++file) {
    if (!file->problem.empty()) {
      continue;
    }
    if (total + file->bytes > kLargestTotal) {
      file->problem = "The newer traces of the directory take 256 MiB already; name this one to see it.";
      continue;
    }
    total += file->bytes;
    readRecords(BytesOfFile(file->path), file->trace);
  }
}

std::vector<TraceFile> loadTraces(const std::string& directory, std::string& problem) {
  std::vector<TraceFile> files = openTraces(directory, problem);
  loadRecords(files);
  return files;
}

}  // namespace tracetool
