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

// As many of the bytes as the file has.
std::size_t readAt(int fd, char* to, std::size_t size, std::uint64_t offset) {
  std::size_t done = 0;
  while (done < size) {
    const ssize_t count = pread(fd, to + done, size - done, static_cast<off_t>(offset + done));
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

std::optional<ChunkHeader> chunkAt(int fd, std::uint64_t offset) {
  ChunkHeader chunk = {};
  if (readAt(fd, reinterpret_cast<char*>(&chunk), sizeof chunk, offset) != sizeof chunk) {
    return std::nullopt;
  }
  return chunk;
}

// A ring may be overwritten while it is copied: what counts is the end from before
// the copy and the beginning from after it.
void settleRing(int fd, std::string& bytes, std::uint64_t offset, const ChunkHeader& before) {
  const auto after = chunkAt(fd, offset);
  if (!after || offset + sizeof before > bytes.size()) {
    return;
  }
  ChunkHeader settled = before;
  settled.tail = std::min(after->tail, settled.head);
  std::memcpy(bytes.data() + offset, &settled, sizeof settled);
}

std::string copyOf(int fd, std::uint64_t size) {
  std::string bytes(static_cast<std::size_t>(size), '\0');
  std::uint64_t offset = readAt(fd, bytes.data(), std::min<std::size_t>(bytes.size(), kFileHeaderSize), 0);
  while (offset < size) {
    const auto chunk = chunkAt(fd, offset);
    const bool sound = chunk && chunk->magic == kChunkMagic && chunk->size >= sizeof *chunk;
    const std::uint64_t step = std::min(sound ? chunk->size : kUnit - offset % kUnit, size - offset);
    readAt(fd, bytes.data() + offset, static_cast<std::size_t>(step), offset);
    if (sound && chunk->kind == RingChunk) {
      settleRing(fd, bytes, offset, *chunk);
    }
    offset += step;
  }
  return bytes;
}

struct Found {
  std::string path;
  std::uint64_t bytes;
  std::int64_t modified;
};

// The newest first: when there are too many, those count.
std::vector<Found> tracesIn(const std::string& directory, std::string& problem) {
  std::vector<Found> found;
  std::error_code error;
  for (fs::directory_iterator at(directory, error), end; !error && at != end; at.increment(error)) {
    struct stat status = {};
    if (at->path().extension() == kFileSuffix && stat(at->path().c_str(), &status) == 0) {
      found.push_back({at->path().string(), static_cast<std::uint64_t>(status.st_size),
                       std::int64_t{status.st_mtim.tv_sec} * 1000000000 + status.st_mtim.tv_nsec});
    } else if (at->path().extension() == kFileSuffix) {
      found.push_back({at->path().string(), 0, 0});
    }
  }
  problem = error ? error.message() : "";
  std::sort(found.begin(), found.end(), [](const Found& a, const Found& b) {
    return a.modified != b.modified ? a.modified > b.modified : a.path < b.path;
  });
  return found;
}

TraceFile leftOut(const Found& found) {
  TraceFile file;
  file.path = found.path;
  file.bytes = found.bytes;
  file.problem = "The newer traces of the directory take 256 MiB already; name this one to see it.";
  return file;
}

}  // namespace

TraceFile loadTrace(const std::string& path) {
  TraceFile file;
  file.path = path;
  const base::FileDescriptor fd(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  struct stat status = {};
  if (!fd || fstat(fd.get(), &status) != 0) {
    file.problem = std::string("The file cannot be opened: ") + std::strerror(errno) + ".";
    return file;
  }
  if (!S_ISREG(status.st_mode)) {
    file.problem = "This is no file.";
    return file;
  }
  file.bytes = static_cast<std::uint64_t>(status.st_size);
  if (file.bytes > kLargestFile) {
    file.problem = "The file is too large for a trace: more than 256 MiB.";
    return file;
  }
  // An empty file is not asked: its process is about to take the lock.
  file.alive = file.bytes > 0 && isOfLiveProcess(fd.get());
  ReadResult read = readTrace(copyOf(fd.get(), file.bytes));
  file.problem = read.problem;
  file.trace = std::move(read.trace);
  return file;
}

std::vector<TraceFile> loadTraces(const std::string& directory, std::string& problem) {
  std::vector<TraceFile> files;
  std::uint64_t total = 0;
  for (const Found& found : tracesIn(directory, problem)) {
    total += found.bytes;
    // One that is too large on its own says so itself.
    const bool fits = total <= kLargestTotal || found.bytes > kLargestFile;
    files.push_back(fits ? loadTrace(found.path) : leftOut(found));
    if (!fits || !files.back().problem.empty()) {
      total -= found.bytes;
    }
  }
  std::sort(files.begin(), files.end(), [](const TraceFile& a, const TraceFile& b) {
    return a.trace.start != b.trace.start ? a.trace.start < b.trace.start : a.path < b.path;
  });
  return files;
}

}  // namespace tracetool
