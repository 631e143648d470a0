// SPDX-License-Identifier: Apache-2.0
#include "fw-update-mount-manager.h"

#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <boost/filesystem.hpp>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <exception>
#include <fstream>

#include "diagnostic-log.h"
#include "library-messages.h"
#include "privileged-service.h"

namespace {

constexpr const char* kMountOptions = "ro,loop,nodev,nosuid";
constexpr int kLoopNodeLimit = 250;  // one above the highest node that is ever created
constexpr std::size_t kArgumentCapacity = 1024;

using ArgumentText = std::array<char, kArgumentCapacity>;

bool startsWith(const std::string& text, const char* prefix) {
  return text.rfind(prefix, 0) == 0;
}

bool hasType(const char* path, mode_t type) {
  struct stat status = {};
  return stat(path, &status) == 0 && (status.st_mode & S_IFMT) == type;
}

// False when the text does not fit: a request is never sent cut off.
bool formatMountArguments(ArgumentText& text, const char* options, const char* src, const char* dest) {
  const int length = std::snprintf(text.data(), text.size(), "-o %s %s %s", options, src, dest);
  return length >= 0 && static_cast<std::size_t>(length) < text.size();
}

struct RequestResult {
  int status = -1;
  int result = 0;

  bool succeeded() const { return status == 0 && result == 0; }
};

RequestResult requestMount(const ArgumentText& text) {
  RequestResult answer;
  answer.status = PS_Mount(text.data(), static_cast<int>(text.size()), 0, &answer.result);
  return answer;
}

RequestResult requestNode(int number) {
  ArgumentText text{};
  std::snprintf(text.data(), text.size(), "-m 0660 -Z * /dev/loop%d  b 7 %d", number, number);
  RequestResult answer;
  answer.status = PS_Mknod(text.data(), static_cast<int>(text.size()), 0, &answer.result);
  return answer;
}

}  // namespace

FWMountManager* FWMountManager::getInstance() {
  static FWMountManager instance;
  return &instance;
}

FWMountManager::FWMountManager() = default;

FWMountManager::~FWMountManager() = default;  // not trivial: its end at process exit is registered

int FWMountManager::Mount(const std::string& src, const std::string& dest) {
  if (src.empty() || dest.empty()) {
    FW_LOG(diagnostics::kError, MESSAGE_MOUNT_WITHOUT_PLACES);
    return -1;
  }
  if (!IsFile(src.c_str())) {
    FW_LOG(diagnostics::kError, MESSAGE_MOUNT_WITHOUT_IMAGE, src.c_str());
    return -1;
  }
  if (access(dest.c_str(), F_OK) != 0) {
    const int result = mkdir(dest.c_str(), 0775);
    if (result != 0) {
      const int error = errno;
      char buffer[256] = {};
      const char* const text = strerror_r(error, buffer, sizeof(buffer));
      FW_LOG(diagnostics::kError, MESSAGE_MOUNT_POINT_NOT_MADE, dest.c_str(), result, error, text, buffer);
      return -1;
    }
  }
  return loop_mount(src.c_str(), dest.c_str(), kMountOptions) ? 0 : -1;
}

int FWMountManager::UMount(const std::string& dir) {
  try {
    if (dir.empty()) {
      FW_LOG(diagnostics::kError, MESSAGE_UNMOUNT_WITHOUT_PLACE);
      return -1;
    }
    if (!IsDir(dir.c_str())) {
      FW_LOG(diagnostics::kError, MESSAGE_UNMOUNT_NO_DIRECTORY, dir.c_str());
      return -1;
    }
    // The length goes along here, not a buffer's capacity; deliberate.
    int result = 0;
    const int status = PS_Umount(dir.c_str(), static_cast<int>(dir.size()), 0, &result);
    if (status == 0 && result == 0) {
      FW_LOG(diagnostics::kInfo, MESSAGE_UNMOUNTED, dir.c_str());
      return 0;
    }
    FW_LOG(diagnostics::kError, MESSAGE_UNMOUNT_FAILED, status, result, dir.c_str());
  } catch (const std::exception& error) {
    FW_LOG(diagnostics::kError, MESSAGE_UNMOUNT_BROKE_OFF, dir.c_str(), error.what());
  }
  return -1;
}

bool loop_mount(const char* src, const char* dest, const char* options) {
  ArgumentText arguments{};
  if (!formatMountArguments(arguments, options, src, dest)) {
    FW_LOG(diagnostics::kInfo, MESSAGE_MOUNT_FAILED, src, dest, -1, 0);
    return false;
  }
  FW_LOG(diagnostics::kInfo, MESSAGE_MOUNT_REQUESTED, arguments.data());
  RequestResult mount = requestMount(arguments);
  if (mount.succeeded()) {
    return true;
  }
  FW_LOG(diagnostics::kInfo, MESSAGE_MOUNT_FAILED, src, dest, mount.status, mount.result);

  const int present = countPresentLoopDevices();
  const int mounted = countMountedLoopDevices();
  FW_LOG(diagnostics::kInfo, MESSAGE_LOOP_DEVICES, present, mounted);
  // A free node means that the failure has another cause, which no node mends.
  if (present != mounted) {
    return false;
  }
  for (int number = mounted; number < kLoopNodeLimit; ++number) {
    const RequestResult node = requestNode(number);
    if (!node.succeeded()) {
      FW_LOG(diagnostics::kError, MESSAGE_LOOP_DEVICE_NOT_MADE, node.status, node.result);
      continue;
    }
    mount = requestMount(arguments);
    if (mount.succeeded()) {
      return true;
    }
    FW_LOG(diagnostics::kError, MESSAGE_MOUNT_FAILED, src, dest, mount.status, mount.result);
  }
  return false;
}

int countMountedLoopDevices() {
  std::ifstream mounts("/proc/mounts");
  int count = 0;
  for (std::string line; std::getline(mounts, line);) {
    if (startsWith(line, "/dev/loop")) {
      ++count;
    }
  }
  return count;
}

int countPresentLoopDevices() {
  int count = 0;
  for (const boost::filesystem::directory_entry& entry : boost::filesystem::directory_iterator("/dev")) {
    const std::string path = entry.path().string();
    if (startsWith(path, "/dev/loop") && !startsWith(path, "/dev/loop-control")) {
      ++count;
    }
  }
  return count;
}

bool IsFile(const char* path) {
  return hasType(path, S_IFREG);
}

bool IsDir(const char* path) {
  return hasType(path, S_IFDIR);
}
