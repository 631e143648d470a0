// SPDX-License-Identifier: Apache-2.0
// A minimal update module. Its component is a file: the first line is the version
// of the firmware, the rest is the firmware itself.
#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <boost/crc.hpp>
#include <boost/property_tree/json_parser.hpp>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>
#include <string>

#include "dlog.h"
#include "fw-update-module.h"

namespace {

constexpr const char* kLibrary = "libminimal";
constexpr const char* kDirectory = "/var/lib/fw-components";
constexpr const char* kFlash = "/var/lib/fw-components/minimalfw.firmware";
constexpr const char* kNewFlash = "/var/lib/fw-components/minimalfw.firmware.new";

bool isVersion(const std::string& text) {
  return !text.empty() && text.size() < 128 && text.find_first_not_of("0123456789.") == std::string::npos;
}

// The library logs errno beside the result.
int failure(int error) {
  errno = error;
  return -error;
}

// Of an update: why it failed goes into the platform's log, under the library's name.
int failure(int error, const char* what) {
  __dlog_print(2, DLOG_ERROR_PRIORITY, "FWUPDATE", "%s: %s: %s", kLibrary, what, std::strerror(error));
  return failure(error);
}

std::string activeVersion() {
  std::ifstream flash(kFlash, std::ios::binary);
  std::string version;
  return std::getline(flash, version) ? version : "0.0.0";
}

bool hasCrc(const std::string& image, unsigned long expected) {
  boost::crc_optimal<32, 0x01B23CA3, 0, 0, false, false> crc;
  crc.process_bytes(image.data(), image.size());
  return crc.checksum() == expected;
}

// Of the image at path: the one that checkVersion was asked about last may be another's.
std::string statedVersion(const std::string& path) {
  boost::property_tree::ptree information;
  boost::property_tree::read_json(path.substr(0, path.rfind('/') + 1) + "info.json", information);
  return information.get<std::string>("version");
}

// False with errno. On the medium before it is reported as written.
bool writeNewFlash(const std::string& content) {
  std::FILE* file = std::fopen(kNewFlash, "wbe");
  if (file == nullptr) {
    return false;
  }
  const bool written = std::fwrite(content.data(), 1, content.size(), file) == content.size() &&
                       std::fflush(file) == 0 && ::fsync(::fileno(file)) == 0;
  const int error = errno;
  std::fclose(file);
  errno = error;
  return written;
}

struct Directory {
  const int descriptor = ::open(kDirectory, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  ~Directory() {
    if (descriptor >= 0) {
      ::close(descriptor);
    }
  }
};

int replaceFlash(const std::string& content) {
  // The lock ends with the descriptor. An update that ran out of time in another
  // process may still be writing.
  const Directory directory;
  if (directory.descriptor < 0 || ::flock(directory.descriptor, LOCK_EX | LOCK_NB) != 0) {
    return failure(errno, kDirectory);
  }
  // One rename, so that there is no moment without firmware.
  if (writeNewFlash(content) && std::rename(kNewFlash, kFlash) == 0) {
    return ::fsync(directory.descriptor) == 0 ? 0 : failure(errno, kDirectory);
  }
  const int error = errno;
  std::remove(kNewFlash);
  return failure(error, kNewFlash);
}

}  // namespace

int setContext(const char* /*libName*/, CallerTypes /*caller*/, char* /*data*/) {
  return 0;
}

int getEMPID(char* out) {
  std::strcpy(out, "minimalempfw");
  return 0;
}

int getActiveVersion(char* out) try {
  std::snprintf(out, 128, "%s", activeVersion().c_str());
  return 0;
} catch (...) {
  return failure(ENOMEM);
}

int checkVersion(const char* version, int* need) try {
  if (!isVersion(version)) {
    return failure(EINVAL);
  }
  *need = ::strverscmp(version, activeVersion().c_str()) > 0 ? 1 : 0;
  return 0;
} catch (...) {
  return failure(ENOMEM);
}

int doUpdate(const char* path, unsigned long value) try {
  std::ifstream file(path, std::ios::binary);
  if (!file) {
    return failure(ENOENT, path);
  }
  const std::string image{std::istreambuf_iterator<char>(file), {}};
  if (image.empty() || !hasCrc(image, value)) {
    return failure(EBADMSG, "the image is not what its checksum says");
  }
  const std::string version = statedVersion(path);
  return isVersion(version) ? replaceFlash(version + '\n' + image)
                            : failure(EINVAL, "info.json states no version");
} catch (const std::exception& error) {
  return failure(EIO, error.what());
} catch (...) {
  return failure(EIO, "an unknown error");
}
