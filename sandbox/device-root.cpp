// SPDX-License-Identifier: Apache-2.0
#include "device-root.h"

#include <fcntl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <utility>

#include "device-layout.h"
#include "file-descriptor.h"
#include "host-mounts.h"
#include "mount-table.h"
#include "system-error.h"

namespace sandbox {
namespace fs = std::filesystem;
namespace {

// Of the directory that every process writes to for itself: what changes the kernel. In
// a user namespace nobody can, but for what is the namespace's own.
constexpr const char* kKernelSettings[] = {"/proc/sys", "/proc/sysrq-trigger", "/proc/irq", "/proc/bus",
                                           "/proc/fs"};
constexpr char kProcesses[] = "/proc";

void showProcesses(const std::string& root, bool ownUserNamespace) {
  showWritable(kProcesses, root + kProcesses);
  for (const std::string path : kKernelSettings) {
    if (!ownUserNamespace && fs::exists(path)) {
      showReadOnly(path, root + path);
    }
  }
}

void createEmptyFile(const std::string& path) {
  const base::FileDescriptor file(open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0644));
  if (!file) {
    base::throwErrno("cannot create the mount point " + path);
  }
}

}  // namespace

DeviceRoot::DeviceRoot(std::string scratch, std::string root, bool ownUserNamespace)
    : scratch_(std::move(scratch)),
      root_(std::move(root)),
      ownUserNamespace_(ownUserNamespace),
      hostMounts_(base::mountPoints()) {
  for (const auto& directory : kDeviceDirectories) {
    // Where the host keeps this path: /lib is often a link to usr/lib.
    const auto path = fs::weakly_canonical(directory.path).string();
    if (directory.place == Place::Own) {
      replaced_.push_back(path);
    }
    if (directory.place == Place::Own || directory.place == Place::Writable) {
      changed_.push_back(path);
    }
  }
}

void DeviceRoot::makeRoomFor(const std::string& path) {
  if (!fs::exists(path)) {
    changed_.push_back(fs::path(path).parent_path());
  }
}

void DeviceRoot::build() {
  // Always entry by entry: "/" cannot be a lower layer in a user namespace.
  mirror("");
}

// path is a directory of the host. "" is the root.
void DeviceRoot::placeDirectory(const std::string& path) {
  const auto target = root_ + path;
  fs::create_directory(target);
  if (std::find(replaced_.begin(), replaced_.end(), path) != replaced_.end()) {
    return;
  }
  if (!changesWithin(path)) {
    return path == kProcesses ? showProcesses(root_, ownUserNamespace_) : showReadOnly(path, target);
  }
  // A layer over the host's directory would hide what is mounted below it, and the
  // kernel refuses it in a user namespace; kernels before 5.11 know no layers there.
  if (hostMountsBelow(path) || !overlay(path)) {
    mirror(path);
  }
}

void DeviceRoot::placeEntry(const std::string& path) {
  struct stat status = {};
  if (path == kVerifierLibrary || lstat(path.c_str(), &status) != 0) {
    return;  // the device has its own verifier; a mount private to another user cannot be shown
  }
  const auto target = root_ + path;
  if (S_ISDIR(status.st_mode)) {
    return placeDirectory(path);
  }
  if (S_ISLNK(status.st_mode)) {
    return fs::copy_symlink(path, target);
  }
  createEmptyFile(target);
  showReadOnly(path, target);
}

// Shows each entry of the host's directory in a directory of the device's own.
void DeviceRoot::mirror(const std::string& path) {
  for (const auto& entry : fs::directory_iterator(path.empty() ? "/" : path)) {
    placeEntry(path + "/" + entry.path().filename().string());
  }
  createChanged(root_, path);
}

// Whatever is to be written to must exist in the upper layer beforehand: the
// kernel cannot copy up directories whose owner is unknown in a user namespace.
bool DeviceRoot::overlay(const std::string& path) {
  const auto upper = scratch_ + "/upper";
  const auto work = scratch_ + "/work" + path;
  fs::create_directories(upper + path);
  fs::create_directories(work);
  createChanged(upper, path);
  auto options = "lowerdir=" + path + ",upperdir=" + upper + path + ",workdir=" + work;
  if (ownUserNamespace_) {
    options += ",userxattr";
  }
  const auto special = path.find_first_of(",:\\") != std::string::npos;
  return !special && mount("overlay", (root_ + path).c_str(), "overlay", 0, options.c_str()) == 0;
}

void DeviceRoot::createChanged(const std::string& root, const std::string& below) {
  for (const auto& path : changed_) {
    if (base::isBelow(path, below)) {
      fs::create_directories(root + path);
    }
  }
}

bool DeviceRoot::changesWithin(const std::string& path) const {
  return std::any_of(changed_.begin(), changed_.end(),
                     [&](const std::string& changed) { return base::isWithin(changed, path); });
}

bool DeviceRoot::hostMountsBelow(const std::string& path) const {
  return std::any_of(hostMounts_.begin(), hostMounts_.end(),
                     [&](const std::string& mounted) { return base::isBelow(mounted, path); });
}

}  // namespace sandbox
