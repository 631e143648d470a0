#include "usb-package.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <climits>
#include <cstring>

#include "fw-update-cipher.h"

namespace {

constexpr std::int64_t SmallestPackage = 614;  // IV, version block, trailer

}  // namespace

Stream openPackage(const std::string& path) {
  FileDescriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  struct stat status = {};
  if (!file.isOpen() || fstat(file.get(), &status) != 0 || S_ISFIFO(status.st_mode)) {
    return nullptr;
  }
  Stream stream(fdopen(file.get(), "rb"));
  if (stream) {
    file.release();
  }
  return stream;
}

std::int64_t packageSize(const std::string& path) {
  struct stat status = {};
  return stat(path.c_str(), &status) == 0 ? static_cast<std::int64_t>(status.st_size) : 0;
}

bool readPackageIv(FILE* file, PackageIv& iv) {
  return std::fread(iv.data(), 1, iv.size(), file) == iv.size();
}

const unsigned char* decryptPackage(FILE* file, const unsigned char* key, const PackageIv& iv,
                                    std::int64_t size, std::int64_t count, int& length) {
  if (size < SmallestPackage || size > INT_MAX) {
    return nullptr;
  }
  return aes_256_cbc_all(file, key, iv.data(), 0, static_cast<int>(count), length);
}

VersionBlock versionBlock(const unsigned char* plaintext, int length) {
  VersionBlock block{};
  std::memcpy(block.data(), plaintext, static_cast<std::size_t>(std::clamp(length, 0, VersionBlockSize)));
  return block;
}
