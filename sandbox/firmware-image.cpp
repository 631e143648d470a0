// SPDX-License-Identifier: Apache-2.0
#include "firmware-image.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <filesystem>
#include <random>

#include "directory-tree.h"
#include "file-descriptor.h"
#include "image-information.h"
#include "system-error.h"

namespace sandbox {
namespace fs = std::filesystem;
namespace {

// The folder itself: a link in its place is refused, so that nothing else is written to.
base::FileDescriptor openFolder(const std::string& folder) {
  base::FileDescriptor opened(open(folder.c_str(), O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  if (!opened) {
    base::throwErrno("cannot open the folder " + folder);
  }
  return opened;
}

}  // namespace

std::string imageContent(const std::string& firmwareName, const std::string& version, std::size_t bytes) {
  const auto text = firmwareName + " " + version;
  std::seed_seq seed(text.begin(), text.end());
  std::mt19937 random(seed);
  std::string content;
  content.reserve(bytes + sizeof(std::uint32_t));
  while (content.size() < bytes) {
    const auto word = random();
    for (unsigned int shift = 0; shift < 32; shift += 8) {
      content += static_cast<char>((word >> shift) & 0xFFU);
    }
  }
  content.resize(bytes);
  return content;
}

void writeFirmware(const std::string& directory, const std::string& firmwareName, const std::string& version,
                   std::size_t bytes, unsigned int expectedTimeSeconds) {
  const auto folder = directory + "/" + firmwareName;
  fs::create_directories(folder);
  const auto content = imageContent(firmwareName, version, bytes);
  const auto opened = openFolder(folder);
  replaceFile(opened, firmwareName + ".bin", content);
  replaceFile(opened, "info.json", image::toText({version, image::crcOf(content), expectedTimeSeconds}));
}

void corruptFirmware(const std::string& directory, const std::string& firmwareName) {
  const auto folder = openFolder(directory + "/" + firmwareName);
  const auto name = firmwareName + ".bin";
  const base::FileDescriptor image(openat(folder.get(), name.c_str(), O_RDWR | O_NOFOLLOW | O_CLOEXEC));
  struct stat status = {};
  unsigned char byte = 0;
  if (!image || fstat(image.get(), &status) != 0 || pread(image.get(), &byte, 1, status.st_size / 2) != 1) {
    base::throwErrno("cannot read " + folder.target() + "/" + name);
  }
  byte ^= 0xFF;
  if (pwrite(image.get(), &byte, 1, status.st_size / 2) != 1) {
    base::throwErrno("cannot change " + folder.target() + "/" + name);
  }
}

}  // namespace sandbox
