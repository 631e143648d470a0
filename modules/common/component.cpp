// SPDX-License-Identifier: Apache-2.0
#include "component.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <system_error>
#include <type_traits>

#include "dlog.h"
#include "dotted-version.h"
#include "error-number.h"
#include "flash-file.h"
#include "hardware.h"
#include "image-information.h"
#include "journal.h"
#include "posix-file.h"
#include "progress-file.h"
#include "update-run.h"

namespace fwcomponent {
namespace {

static_assert(std::is_trivially_destructible_v<Component>);

// The version that this thread asked about last. A USB package is written by the thread that
// has just asked, and brings nothing else that states its version.
thread_local char checkedVersion[kVersionCapacity];

template <std::size_t N>
void keepText(char (&destination)[N], const char* source) {
  const std::size_t length = ::strnlen(source, N - 1);
  std::memcpy(destination, source, length);
  std::memset(destination + length, 0, N - length);
}

FileDescriptor openImage(const char* path, std::uint64_t& size) {
  // Non-blocking, so that a FIFO in the image's place cannot hold up the update.
  FileDescriptor file = openFile(path, O_RDONLY | O_NONBLOCK);
  struct stat status = {};
  if (::fstat(file.get(), &status) != 0) {
    fail(errno, path);
  }
  if (!S_ISREG(status.st_mode)) {
    fail(S_ISDIR(status.st_mode) ? EISDIR : EINVAL, path);
  }
  size = static_cast<std::uint64_t>(status.st_size);
  return file;
}

// The version of the active flash, or nothing when it is too broken to have one.
std::optional<std::string> usableVersion(const Component& component) try {
  return component.activeVersion();
} catch (const std::system_error& error) {
  if (error.code() == std::errc::bad_message) {
    return std::nullopt;
  }
  throw;
}

// Empty when it is not known. Why is told when the image has been opened.
std::string statedVersion(const char* path) try {
  return path == nullptr ? "" : versionOfImage(path);
} catch (const std::exception&) {
  return "";
}

}  // namespace

void Component::setContext(const char* libName, int caller, const char* data) {
  if (libName == nullptr) {
    fail(EINVAL, "no library name");
  }
  const std::lock_guard<std::mutex> lock(mutex_);
  keepText(libName_, libName);
  caller_ = caller;
  keepText(data_, data == nullptr ? "" : data);
}

std::string Component::activeVersion() const {
  const auto flash = readActiveFlash(identity_.firmwareName);
  return flash ? flash->version : "0.0.0";
}

bool Component::isNewer(const char* version) {
  if (version == nullptr || !isVersion(version) || std::strlen(version) >= sizeof checkedVersion) {
    fail(EINVAL, "no version");
  }
  const std::optional<std::string> active = usableVersion(*this);
  keepText(checkedVersion, version);
  return !active || compareVersions(version, *active) > 0;
}

void Component::updateFromFile(const char* path, unsigned long crc) {
  const std::string version = statedVersion(path);
  runRecorded(version, [&] {
    if (path == nullptr) {
      fail(EINVAL, "no path");
    }
    UpdateRun run(identity_.firmwareName);
    Image image;
    const FileDescriptor file = openImage(path, image.size);
    image.read = [&file](unsigned char* buffer, std::size_t capacity) {
      return readBlock(file.get(), buffer, capacity);
    };
    noteImageSize(image.size);
    run.writeImage(image, version.empty() ? versionOfImage(path) : version, crc);
  });
}

void Component::updateFromMemory(const unsigned char* data, int length) {
  const std::string version = checkedVersion;
  runRecorded(version, [&] {
    if (version.empty()) {
      fail(EINVAL, "no version was checked before the update");
    }
    if (data == nullptr || length < 0) {
      fail(EINVAL, "no data");
    }
    UpdateRun run(identity_.firmwareName);
    auto left = static_cast<std::size_t>(length);
    const unsigned char* next = data;
    Image image;
    image.size = left;
    image.read = [&](unsigned char* buffer, std::size_t capacity) {
      const std::size_t given = std::min(capacity, left);
      std::memcpy(buffer, next, given);
      next += given;
      left -= given;
      return given;
    };
    noteImageSize(image.size);
    run.writeImage(image, version, std::nullopt);
  });
}

void Component::tellWhy(const std::exception& error) const noexcept {
  const std::lock_guard<std::mutex> lock(mutex_);
  const char* const name = libName_[0] != '\0' ? libName_ : identity_.firmwareName;
  __dlog_print(2, DLOG_ERROR_PRIORITY, "FWUPDATE", "%s: %s", name, error.what());
}

int Component::expectedSeconds() const {
  if (const auto stated = readHardwareDescription(identity_.firmwareName).expectedTime) {
    return static_cast<int>(*stated);
  }
  const std::lock_guard<std::mutex> lock(mutex_);
  if (lastImageSize_ == 0) {
    return static_cast<int>(identity_.expectedSeconds);
  }
  // Rounded up, and never 0.
  const std::uint64_t seconds = lastImageSize_ / 1024 / identity_.kibPerSecond + 1;
  return static_cast<int>(std::min<std::uint64_t>(seconds, INT_MAX));
}

unsigned int Component::progress() const {
  return readProgress(identity_.firmwareName);
}

void Component::allUpdateDone() const {
  if (!appendToJournal(identity_.firmwareName, "all-done")) {
    fail(EIO, "journal");
  }
}

// The journal does not decide about an update: a full disk must not keep a
// component from a firmware that still fits.
void Component::runRecorded(const std::string& version, const std::function<void()>& update) {
  std::unique_lock<std::mutex> lock(mutex_);
  const std::string asked =
      " library=" + std::string(libName_) + " caller=" + std::to_string(caller_) + " data=" + data_;
  lock.unlock();

  const std::string which = " version=" + (version.empty() ? "-" : version);
  appendToJournal(identity_.firmwareName, "start" + which + asked);
  try {
    update();
  } catch (const std::exception& error) {
    const std::string result = " result=" + std::to_string(-currentErrorNumber());
    appendToJournal(identity_.firmwareName, "fail" + which + result + " reason=" + error.what());
    throw;
  }
  appendToJournal(identity_.firmwareName, "finish" + which + " result=0");
}

void Component::noteImageSize(std::uint64_t size) {
  const std::lock_guard<std::mutex> lock(mutex_);
  lastImageSize_ = size;
}

}  // namespace fwcomponent
