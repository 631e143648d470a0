// SPDX-License-Identifier: Apache-2.0
#include "flash-file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <boost/endian/conversion.hpp>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <system_error>

#include "dotted-version.h"
#include "image-crc.h"

namespace fwcomponent {
namespace {

constexpr unsigned char kMagic[8] = {'F', 'W', 'F', 'L', 'A', 'S', 'H', '\0'};
constexpr std::uint32_t kFormat = 1;
constexpr off_t kSentAtOnce = off_t{8} * 1024 * 1024;

// Where the fields of the header stand; what lies between them is zero.
constexpr std::size_t kFormatOffset = 8;
constexpr std::size_t kCrcOffset = 12;
constexpr std::size_t kSizeOffset = 16;
constexpr std::size_t kVersionOffset = 24;
constexpr std::size_t kHeaderCrcOffset = kFlashHeaderSize - 4;

std::uint32_t headerCrc(const FlashHeaderBytes& bytes) {
  return extendImageCrc(0, bytes.data(), kHeaderCrcOffset);
}

std::string activePath(const std::string& firmwareName) {
  return kComponentsDirectory + firmwareName + ".flash";
}

std::uint64_t regularFileSize(int descriptor, const std::string& path) {
  struct stat status = {};
  if (::fstat(descriptor, &status) != 0) {
    fail(errno, path);
  }
  if (!S_ISREG(status.st_mode)) {
    fail(EBADMSG, path + " is no regular file");
  }
  return static_cast<std::uint64_t>(status.st_size);
}

}  // namespace

FlashHeaderBytes encodeHeader(const FlashHeader& header) {
  if (header.version.size() >= kVersionCapacity) {
    fail(EINVAL, "the version is too long for the flash");
  }
  FlashHeaderBytes bytes{};
  std::memcpy(bytes.data(), kMagic, sizeof kMagic);
  boost::endian::store_little_u32(&bytes[kFormatOffset], kFormat);
  boost::endian::store_little_u32(&bytes[kCrcOffset], header.crc);
  boost::endian::store_little_u64(&bytes[kSizeOffset], header.size);
  std::memcpy(&bytes[kVersionOffset], header.version.data(), header.version.size());
  boost::endian::store_little_u32(&bytes[kHeaderCrcOffset], headerCrc(bytes));
  return bytes;
}

FlashHeader decodeHeader(const FlashHeaderBytes& bytes) {
  if (std::memcmp(bytes.data(), kMagic, sizeof kMagic) != 0) {
    fail(EBADMSG, "the flash has no magic");
  }
  if (boost::endian::load_little_u32(&bytes[kHeaderCrcOffset]) != headerCrc(bytes)) {
    fail(EBADMSG, "the CRC of the flash header is wrong");
  }
  if (boost::endian::load_little_u32(&bytes[kFormatOffset]) != kFormat) {
    fail(EBADMSG, "the format of the flash is unknown");
  }

  FlashHeader header;
  const char* version = reinterpret_cast<const char*>(&bytes[kVersionOffset]);
  header.version.assign(version, ::strnlen(version, kVersionCapacity));
  if (header.version.size() == kVersionCapacity || !isVersion(header.version)) {
    fail(EBADMSG, "the version in the flash is none");
  }
  header.crc = boost::endian::load_little_u32(&bytes[kCrcOffset]);
  header.size = boost::endian::load_little_u64(&bytes[kSizeOffset]);
  return header;
}

std::optional<FlashHeader> readActiveFlash(const std::string& firmwareName) try {
  const std::string path = activePath(firmwareName);
  const FileDescriptor file = openFile(path, O_RDONLY | O_NONBLOCK);
  const std::uint64_t fileSize = regularFileSize(file.get(), path);
  FlashHeaderBytes bytes;
  if (readBlock(file.get(), bytes.data(), bytes.size()) != bytes.size()) {
    fail(EBADMSG, path + " is shorter than its header");
  }
  FlashHeader header = decodeHeader(bytes);
  if (fileSize - kFlashHeaderSize != header.size) {
    fail(EBADMSG, path + " has not the size that its header states");
  }
  return header;
} catch (const std::system_error& error) {
  if (error.code() == std::errc::no_such_file_or_directory) {
    return std::nullopt;
  }
  throw;
}

// The file of an interrupted update is overwritten.
NewFlash::NewFlash(const std::string& firmwareName)
    : activePath_(activePath(firmwareName)),
      newPath_(activePath_ + ".new"),
      directory_(openFile(kComponentsDirectory, O_RDONLY | O_DIRECTORY)),
      file_(openFile(newPath_, O_RDWR | O_CREAT | O_TRUNC | O_NOFOLLOW, 0644)) {
  if (::lseek(file_.get(), kFlashHeaderSize, SEEK_SET) < 0) {
    const int error = errno;
    ::unlink(newPath_.c_str());
    fail(error, newPath_);
  }
}

NewFlash::~NewFlash() {
  if (!activated_) {
    ::unlink(newPath_.c_str());
  }
}

void NewFlash::append(const unsigned char* data, std::size_t length) {
  writeAll(file_.get(), data, length);
  unsent_ += static_cast<off_t>(length);
  if (unsent_ >= kSentAtOnce) {
    startSending();
  }
}

// Lets the medium take what was written while more is written, so that less is left
// for fsync. Only begins it: whether it succeeds is for fsync to say.
void NewFlash::startSending() {
  ::sync_file_range(file_.get(), sent_, unsent_, SYNC_FILE_RANGE_WRITE);
  sent_ += unsent_;
  unsent_ = 0;
}

void NewFlash::finishWriting(const FlashHeader& header) {
  const FlashHeaderBytes bytes = encodeHeader(header);
  if (::lseek(file_.get(), 0, SEEK_SET) < 0) {
    fail(errno, newPath_);
  }
  writeAll(file_.get(), bytes.data(), bytes.size());
  if (::fsync(file_.get()) != 0) {
    fail(errno, newPath_);
  }
  // Otherwise the page cache would answer for the medium.
  if (const int error = ::posix_fadvise(file_.get(), 0, 0, POSIX_FADV_DONTNEED); error != 0) {
    fail(error, newPath_);
  }

  FlashHeaderBytes stored;
  if (::lseek(file_.get(), 0, SEEK_SET) < 0) {
    fail(errno, newPath_);
  }
  if (readBlock(file_.get(), stored.data(), stored.size()) != stored.size() || stored != bytes) {
    fail(EIO, "the flash header reads back differently");
  }
}

std::size_t NewFlash::readBack(unsigned char* buffer, std::size_t capacity) {
  return readBlock(file_.get(), buffer, capacity);
}

void NewFlash::activate() {
  if (::rename(newPath_.c_str(), activePath_.c_str()) != 0) {
    fail(errno, activePath_);
  }
  activated_ = true;
  if (::fsync(directory_.get()) != 0) {
    fail(errno, kComponentsDirectory);
  }
}

}  // namespace fwcomponent
