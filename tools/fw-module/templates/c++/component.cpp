#include "component.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <vector>

#include "reason.h"

namespace component {
namespace {

constexpr char kDirectory[] = "/var/lib/fw-components";
constexpr char kLock[] = "/var/lib/fw-components/@FIRMWARE@.lock";
// The version on the first line, then the firmware.
constexpr char kFlash[] = "/var/lib/fw-components/@FIRMWARE@.firmware";
constexpr char kNewFlash[] = "/var/lib/fw-components/@FIRMWARE@.firmware.new";

std::atomic<unsigned int> percent{0};

// Open files are close-on-exec: the process is not the module's.
class File {
 public:
  explicit File(int descriptor) : descriptor_(descriptor) {}
  File(const File&) = delete;
  File& operator=(const File&) = delete;
  ~File() {
    if (descriptor_ >= 0)
      ::close(descriptor_);
  }
  bool isOpen() const { return descriptor_ >= 0; }
  int get() const { return descriptor_; }

 private:
  int descriptor_;
};

// The CRC-32 of firmware images: polynomial 0x01B23CA3, nothing reflected or inverted.
std::uint32_t extendCrc(std::uint32_t crc, const unsigned char* bytes, std::size_t size) {
  for (std::size_t i = 0; i < size; ++i) {
    crc ^= std::uint32_t{bytes[i]} << 24;
    for (int bit = 0; bit < 8; ++bit)
      crc = (crc & 0x80000000U) != 0 ? (crc << 1) ^ 0x01B23CA3U : crc << 1;
  }
  return crc;
}

int writeAll(int descriptor, const void* data, std::size_t size) {
  const char* bytes = static_cast<const char*>(data);
  while (size > 0) {
    const ssize_t written = ::write(descriptor, bytes, size);
    if (written < 0)
      return failed(kNewFlash, errno);
    bytes += written;
    size -= static_cast<std::size_t>(written);
  }
  return 0;
}

int copy(int image, int flash, unsigned long expectedCrc) {
  struct stat status {};
  if (::fstat(image, &status) != 0)
    return failed("the image", errno);
  if (!S_ISREG(status.st_mode) || status.st_size == 0)
    return failed("the image is no file, or empty", EINVAL);
  std::vector<unsigned char> block(65536);
  std::uint32_t crc = 0;
  for (std::int64_t done = 0; done < status.st_size;) {
    const ssize_t size = ::read(image, block.data(), block.size());
    if (size <= 0)
      return failed("reading at " + std::to_string(percent) + " percent", size < 0 ? errno : EIO);
    const auto length = static_cast<std::size_t>(size);
    if (const int result = writeAll(flash, block.data(), length); result != 0)
      return result;
    crc = extendCrc(crc, block.data(), length);
    done += size;
    percent = static_cast<unsigned int>(done * 99 / status.st_size);
  }
  // It was right when the library looked; this is what was read now.
  return crc == expectedCrc ? 0 : failed("the image has another checksum", EBADMSG);
}

// All of it is on the medium when this returns 0.
int writeNewFlash(const std::string& path, unsigned long crc, const std::string& version) {
  const File image(::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
  if (!image.isOpen())
    return failed(path, errno);
  const File flash(::open(kNewFlash, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
  if (!flash.isOpen())
    return failed(kNewFlash, errno);
  const std::string head = version + '\n';
  if (const int result = writeAll(flash.get(), head.data(), head.size()); result != 0)
    return result;
  if (const int result = copy(image.get(), flash.get(), crc); result != 0)
    return result;
  return ::fsync(flash.get()) == 0 ? 0 : failed(kNewFlash, errno);
}

// One rename, so that there is no moment without firmware.
int activate() {
  const File directory(::open(kDirectory, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!directory.isOpen() || ::rename(kNewFlash, kFlash) != 0)
    return failed(kFlash, errno);
  return ::fsync(directory.get()) == 0 ? 0 : failed(kDirectory, errno);
}

}  // namespace

int readVersion(std::string& version) {
  const File flash(::open(kFlash, O_RDONLY | O_CLOEXEC));
  if (!flash.isOpen()) {
    version = "0.0.0";
    return errno == ENOENT ? 0 : -errno;
  }
  char head[128];
  const ssize_t size = ::read(flash.get(), head, sizeof head);
  if (size < 0)
    return -errno;
  version.assign(head, static_cast<std::size_t>(size));
  const std::size_t end = version.find('\n');
  if (end == std::string::npos)
    return -EBADMSG;
  version.resize(end);
  return 0;
}

int update(const std::string& path, unsigned long crc, const std::string& version) {
  // An update that ran out of time may still be writing, in this process or another.
  const File lock(::open(kLock, O_RDWR | O_CREAT | O_CLOEXEC, 0644));
  if (!lock.isOpen() || ::flock(lock.get(), LOCK_EX | LOCK_NB) != 0)
    return failed(kLock, errno);
  percent = 0;
  int result = writeNewFlash(path, crc, version);
  if (result == 0)
    result = activate();
  if (result != 0) {
    ::unlink(kNewFlash);
    return result;
  }
  percent = 100;
  return 0;
}

unsigned int progress() {
  return percent;
}

}  // namespace component
