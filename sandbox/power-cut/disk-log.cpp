// SPDX-License-Identifier: Apache-2.0
#include "disk-log.h"

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <boost/endian/conversion.hpp>
#include <fstream>
#include <stdexcept>

#include "system-error.h"

namespace powercut {
namespace {

constexpr std::uint64_t kMagic = 0x6A736677736872;
constexpr std::uint64_t kVersion = 1;
constexpr std::uint32_t kSector = 512;
constexpr std::uint64_t kLargestWrite = std::uint64_t{1} << 30U;

using Sector = std::array<unsigned char, kSector>;

std::uint64_t numberAt(const Sector& sector, std::size_t index) {
  return boost::endian::load_little_u64(&sector[index * 8]);
}

void putNumber(Sector& sector, std::size_t index, std::uint64_t number) {
  boost::endian::store_little_u64(&sector[index * 8], number);
}

std::uint64_t wholeSectors(std::uint64_t bytes, std::uint64_t size) {
  return (bytes + size - 1) / size * size;
}

class Reader {
 public:
  explicit Reader(const std::string& path) : path_(path), file_(path, std::ios::binary) {
    const Sector first = sector();
    count_ = numberAt(first, 2);
    sectorSize_ = boost::endian::load_little_u32(&first[24]);
    if (numberAt(first, 0) != kMagic || numberAt(first, 1) != kVersion || sectorSize_ < kSector) {
      throw std::runtime_error(path_ + " is no log of a disk");
    }
    next_ = sectorSize_;
  }

  std::vector<DiskLogEntry> entries() {
    std::vector<DiskLogEntry> found;
    for (std::uint64_t index = 0; index < count_; ++index) {
      found.push_back(entry());
    }
    return found;
  }

 private:
  DiskLogEntry entry() {
    file_.seekg(static_cast<std::streamoff>(next_));
    const Sector head = sector();
    next_ += sectorSize_;
    DiskLogEntry entry;
    entry.offset = numberAt(head, 0) * kSector;
    entry.length = numberAt(head, 1) * kSector;
    entry.flags = numberAt(head, 2);
    if (entry.has(DiskLogEntry::Discard)) {
      return entry;
    }
    const std::uint64_t bytes = entry.has(DiskLogEntry::Mark) ? numberAt(head, 3) : entry.length;
    if (bytes > kLargestWrite) {
      throw std::runtime_error(path_ + " is damaged");
    }
    entry.data.resize(static_cast<std::size_t>(bytes));
    file_.seekg(static_cast<std::streamoff>(next_));
    read(entry.data.data(), bytes);
    next_ += wholeSectors(bytes, sectorSize_);
    return entry;
  }

  Sector sector() {
    Sector bytes = {};
    read(reinterpret_cast<char*>(bytes.data()), bytes.size());
    return bytes;
  }

  void read(char* bytes, std::uint64_t length) {
    if (!file_.read(bytes, static_cast<std::streamsize>(length))) {
      throw std::runtime_error(path_ + " is cut off");
    }
  }

  const std::string path_;
  std::ifstream file_;
  std::uint64_t sectorSize_ = 0;
  std::uint64_t count_ = 0;
  std::uint64_t next_ = 0;
};

}  // namespace

std::vector<DiskLogEntry> readDiskLog(const std::string& path) {
  return Reader(path).entries();
}

DiskLogWriter::DiskLogWriter(const std::string& path)
    : file_(open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600)), end_(kSector) {
  if (!file_) {
    base::throwErrno(path);
  }
  Sector first = {};
  putNumber(first, 0, kMagic);
  putNumber(first, 1, kVersion);
  boost::endian::store_little_u32(&first[24], kSector);
  put(first.data(), first.size(), 0);
}

void DiskLogWriter::write(std::uint64_t offset, const char* data, std::size_t length) {
  append(0, offset, data, length);
}

void DiskLogWriter::flush() {
  append(DiskLogEntry::Flush, 0, "", 0);
}

void DiskLogWriter::mark(const std::string& text) {
  append(DiskLogEntry::Mark, 0, text.data(), text.size());
}

void DiskLogWriter::append(std::uint64_t flags, std::uint64_t offset, const char* data, std::size_t length) {
  const bool isMark = (flags & DiskLogEntry::Mark) != 0;
  Sector head = {};
  putNumber(head, 0, offset / kSector);
  putNumber(head, 1, isMark ? 0 : length / kSector);
  putNumber(head, 2, flags);
  putNumber(head, 3, isMark ? length : 0);
  put(head.data(), head.size(), end_);
  put(data, length, end_ + kSector);
  end_ += kSector + wholeSectors(length, kSector);
  Sector count = {};
  putNumber(count, 0, ++entries_);
  put(count.data(), sizeof entries_, 16);
}

void DiskLogWriter::put(const void* bytes, std::size_t length, std::uint64_t at) {
  if (pwrite(file_.get(), bytes, length, static_cast<off_t>(at)) != static_cast<ssize_t>(length)) {
    base::throwErrno("the log of the disk cannot be written");
  }
}

}  // namespace powercut
