// SPDX-License-Identifier: Apache-2.0
#include "trace/trace-file.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <string_view>

#include "trace/trace-directory.h"

namespace fwplatform::trace {
namespace {

constexpr std::size_t kMaxLocationChunks = 16;
constexpr std::size_t kThreadNameSize = 16;  // the kernel's, terminator included
constexpr std::int64_t kSecondsADay = std::int64_t{24} * 60 * 60;
constexpr std::int64_t kNanoseconds = 1000000000;

std::int64_t now(clockid_t clock) {
  timespec now = {};
  clock_gettime(clock, &now);
  return static_cast<std::int64_t>(now.tv_sec) * kNanoseconds + now.tv_nsec;
}

std::string threadName() {
  char name[kThreadNameSize] = {};
  prctl(PR_GET_NAME, name);
  return name;
}

std::uint32_t threadId() {
  return static_cast<std::uint32_t>(gettid());
}

std::string commandLine() {
  const base::FileDescriptor file(open("/proc/self/cmdline", O_RDONLY | O_CLOEXEC));
  char text[sizeof(FileHeader::commandLine)];
  const ssize_t count = file ? read(file.get(), text, sizeof text) : 0;
  std::string line(text, count > 0 ? static_cast<std::size_t>(count) : 0);
  while (!line.empty() && line.back() == '\0') {
    line.pop_back();
  }
  std::replace(line.begin(), line.end(), '\0', ' ');
  return line;
}

// A worker takes its name only when it is at work: the one at the end tells most.
void writeThreadName(TraceStorage::Thread& ring, RecordKind kind) {
  const std::string name = threadName();
  if (unsigned char* const payload = ring.prepare(static_cast<std::uint32_t>(name.size()), kind, 0)) {
    std::memcpy(payload, name.data(), name.size());
    ring.commit();
  }
}

template <std::size_t Size>
void copyText(char (&to)[Size], const std::string& text) {
  text.copy(to, Size - 1);
}

// The bytes of a location entry.
class EntryWriter {
 public:
  template <typename Number>
  void put(Number number) {
    const auto* bytes = reinterpret_cast<const unsigned char*>(&number);
    entry_.insert(entry_.end(), bytes, bytes + sizeof number);
  }
  void putText(std::string_view text) {
    text = text.substr(0, UINT16_MAX);
    put(static_cast<std::uint16_t>(text.size()));
    entry_.insert(entry_.end(), text.begin(), text.end());
  }
  // The size of the whole, which is not known before, is the first number.
  const std::vector<unsigned char>& finish() {
    entry_.resize((entry_.size() + 3) / 4 * 4);
    const auto size = static_cast<std::uint32_t>(entry_.size());
    std::memcpy(entry_.data(), &size, sizeof size);
    return entry_;
  }

 private:
  std::vector<unsigned char> entry_;
};

std::string_view orEmpty(const char* text) {
  return text == nullptr ? std::string_view() : text;
}

}  // namespace

TraceFile::TraceFile(const Settings& settings, base::FileDescriptor fd)
    : settings_(settings), fd_(std::move(fd)) {}

TraceFile::~TraceFile() {
  for (const auto& [start, size] : mappings_) {
    munmap(start, size);
  }
}

std::unique_ptr<TraceFile> TraceFile::create(const Settings& settings, int& error) {
  const std::string name = threadName();
  const std::int64_t begun = now(CLOCK_REALTIME);
  const base::FileDescriptor directory = openTraceDirectory(settings.directory);
  if (!directory) {
    error = errno;
    return nullptr;
  }
  cleanUp(directory.get(), begun / kNanoseconds, settings.days * kSecondsADay,
          std::uint64_t{settings.totalMib} * 1024 * 1024);
  base::FileDescriptor fd = createTraceFile(directory.get(), name, begun);
  if (!fd) {
    error = errno;
    return nullptr;
  }
  std::unique_ptr<TraceFile> file(new TraceFile(settings, std::move(fd)));
  error = file->initialise(name, begun);
  if (error != 0) {
    file.reset();
  }
  return file;
}

// More file behind what there is, mapped. Its room on the disk is taken at once: a
// write into a mapping of a full file system would end the process.
unsigned char* TraceFile::append(std::uint32_t size) {
  const auto start = static_cast<off_t>(fileSize_);
  const int error = posix_fallocate(fd_.get(), start, static_cast<off_t>(size));
  if (error != 0) {
    errno = error;
    return nullptr;
  }
  void* const mapping = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd_.get(), start);
  if (mapping == MAP_FAILED) {
    return nullptr;
  }
  auto* const bytes = static_cast<unsigned char*>(mapping);
  mappings_.emplace_back(bytes, size);
  fileSize_ += size;
  return bytes;
}

int TraceFile::initialise(const std::string& processName, std::int64_t realTime) {
  unsigned char* const start = append(kUnit);
  if (start == nullptr) {
    return errno;
  }
  header_ = reinterpret_cast<FileHeader*>(start);
  header_->version = kVersion;
  header_->byteOrder = kByteOrderMark;
  header_->headerSize = kFileHeaderSize;
  header_->processId = static_cast<std::uint32_t>(getpid());
  header_->parentId = static_cast<std::uint32_t>(getppid());
  header_->monotonicTime = now(CLOCK_MONOTONIC);
  header_->realTime = realTime;
  copyText(header_->processName, processName);
  copyText(header_->commandLine, commandLine());

  auto* const chunk = reinterpret_cast<ChunkHeader*>(start + kFileHeaderSize);
  locations_.push_back({chunk, kUnit - kFileHeaderSize});
  chunk->kind = LocationsChunk;
  chunk->size = locations_.back().size;
  chunk->magic = kChunkMagic;
  // Last: a file without it is one that was being made.
  std::atomic_thread_fence(std::memory_order_release);
  std::memcpy(header_->magic, kMagic, sizeof kMagic);
  return 0;
}

bool TraceFile::addLocations() {
  if (locations_.size() >= kMaxLocationChunks) {
    return false;
  }
  auto* const chunk = reinterpret_cast<ChunkHeader*>(append(kUnit));
  if (chunk == nullptr) {
    return false;
  }
  locations_.push_back({chunk, kUnit});
  chunk->kind = LocationsChunk;
  chunk->size = kUnit;
  __atomic_store_n(&chunk->magic, kChunkMagic, __ATOMIC_RELEASE);
  return true;
}

bool TraceFile::storeLocation(const unsigned char* entry, std::uint32_t size) {
  const auto room = [this] {
    return locations_.back().size - sizeof(ChunkHeader) - locations_.back().header->head;
  };
  if (size > kUnit - sizeof(ChunkHeader) || (size > room() && !addLocations())) {
    return false;
  }
  ChunkHeader* const chunk = locations_.back().header;
  unsigned char* const data = reinterpret_cast<unsigned char*>(chunk) + sizeof(ChunkHeader);
  std::memcpy(data + chunk->head, entry, size);
  __atomic_store_n(&chunk->head, chunk->head + size, __ATOMIC_RELEASE);
  return true;
}

void TraceFile::saveLocation(const TraceStorage::CallLocation& location) {
  EntryWriter entry;
  entry.put(std::uint32_t{0});
  entry.put(location.id);
  entry.put(std::int32_t{location.line});
  entry.put(static_cast<std::uint32_t>(location.arguments.size()));
  entry.putText(orEmpty(location.sourcePath));
  entry.putText(orEmpty(location.functionName));
  entry.putText(orEmpty(location.format));
  for (const TraceStorage::ArgumentDescription& argument : location.arguments) {
    entry.put(argument.flag);
    entry.put(argument.size);
    entry.putText(argument.typeName);
  }
  const std::vector<unsigned char>& bytes = entry.finish();
  // Without room for it the records of this place show their arguments alone.
  storeLocation(bytes.data(), static_cast<std::uint32_t>(bytes.size()));
}

void TraceFile::copyLocations(const TraceFile& parent) {
  for (const Chunk& chunk : parent.locations_) {
    const unsigned char* at = reinterpret_cast<const unsigned char*>(chunk.header) + sizeof(ChunkHeader);
    const unsigned char* const end = at + chunk.header->head;
    while (at < end) {
      std::uint32_t size = 0;
      std::memcpy(&size, at, sizeof size);
      storeLocation(at, size);
      at += size;
    }
  }
}

TraceStorage::Thread* TraceFile::lend() {
  const auto free =
      std::find_if(rings_.begin(), rings_.end(), [](const auto& ring) { return ring->isFree(); });
  TraceStorage::Thread* ring = free == rings_.end() ? nullptr : free->get();
  if (ring == nullptr) {
    const std::uint32_t size = (settings_.threadKib * 1024 + kUnit - 1) / kUnit * kUnit;
    auto* const chunk =
        rings_.size() < settings_.threads ? reinterpret_cast<ChunkHeader*>(append(size)) : nullptr;
    if (chunk == nullptr) {
      return nullptr;
    }
    ring = rings_.emplace_back(std::make_unique<TraceStorage::Thread>(chunk, size, &header_->dropped)).get();
  }
  ring->setOwner(threadId());
  writeThreadName(*ring, ThreadBegins);
  return ring;
}

void TraceFile::takeBack(TraceStorage::Thread* ring) {
  writeThreadName(*ring, ThreadEnds);
  ring->setOwner(0);
}

void TraceFile::countDropped() {
  __atomic_fetch_add(&header_->dropped, 1, __ATOMIC_RELAXED);
}

}  // namespace fwplatform::trace
