// SPDX-License-Identifier: Apache-2.0
// What was written to a disk, in order: the file format of the kernel's dm-log-writes,
// which other recorders write too. Plain data; no function locks.
#ifndef SANDBOX_POWER_CUT_DISK_LOG_H
#define SANDBOX_POWER_CUT_DISK_LOG_H

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "file-descriptor.h"

namespace powercut {

struct DiskLogEntry {
  enum Flag : std::uint64_t { Flush = 1, Fua = 2, Discard = 4, Mark = 8 };

  std::uint64_t flags = 0;
  std::uint64_t offset = 0;  // bytes
  std::uint64_t length = 0;  // bytes that are written or discarded
  std::string data;          // of a write; the text of a mark

  bool has(Flag flag) const { return (flags & flag) != 0; }
};

// Throws std::runtime_error when the file is none or cut off.
std::vector<DiskLogEntry> readDiskLog(const std::string& path);

// Appends to a new log, which can be read at any time. Throws std::system_error.
class DiskLogWriter {
 public:
  explicit DiskLogWriter(const std::string& path);

  void write(std::uint64_t offset, const char* data, std::size_t length);  // whole sectors
  void flush();
  void mark(const std::string& text);

 private:
  void append(std::uint64_t flags, std::uint64_t offset, const char* data, std::size_t length);
  void put(const void* bytes, std::size_t length, std::uint64_t at);

  const base::FileDescriptor file_;
  std::uint64_t end_ = 0;
  std::uint64_t entries_ = 0;
};

}  // namespace powercut

#endif
