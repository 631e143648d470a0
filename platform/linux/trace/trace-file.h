// SPDX-License-Identifier: Apache-2.0
// The trace file of this process: a header, the registered locations and the rings
// of its threads, all mapped. Made at the first message and again in a forked
// child. One at a time; the callers see to it that one thread uses it at once. Only
// writing into a ring that was lent needs no such care.
#ifndef PLATFORM_LINUX_TRACE_FILE_H
#define PLATFORM_LINUX_TRACE_FILE_H

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "file-descriptor.h"
#include "trace-storage.h"
#include "trace/trace-ring.h"
#include "trace/trace-settings.h"

namespace fwplatform::trace {

class TraceFile {
 public:
  // Null when the file cannot be made; error then says why (an errno value).
  static std::unique_ptr<TraceFile> create(const Settings& settings, int& error);
  ~TraceFile();
  TraceFile(const TraceFile&) = delete;
  TraceFile& operator=(const TraceFile&) = delete;

  void saveLocation(const TraceStorage::CallLocation& location);
  // In a forked child: its call sites stay registered, so their locations must be
  // in its own file too.
  void copyLocations(const TraceFile& parent);

  // A ring for the calling thread, or null when all are lent and no more may be
  // made. It goes back with takeBack when the thread ends.
  TraceStorage::Thread* lend();
  void takeBack(TraceStorage::Thread* ring);

  // Counts a record that found no ring.
  void countDropped();

  // In a forked child: gives the file up without touching the parent's lock.
  void closeDescriptor() { fd_.reset(); }

 private:
  struct Chunk {
    ChunkHeader* header;
    std::uint32_t size;
  };

  TraceFile(const Settings& settings, base::FileDescriptor fd);

  int initialise(const std::string& processName, std::int64_t realTime);
  unsigned char* append(std::uint32_t size);
  bool addLocations();
  bool storeLocation(const unsigned char* entry, std::uint32_t size);

  const Settings settings_;
  base::FileDescriptor fd_;
  std::uint64_t fileSize_ = 0;
  std::vector<std::pair<unsigned char*, std::uint32_t>> mappings_;
  FileHeader* header_ = nullptr;
  std::vector<Chunk> locations_;
  std::vector<std::unique_ptr<TraceStorage::Thread>> rings_;
};

}  // namespace fwplatform::trace

#endif
