// SPDX-License-Identifier: Apache-2.0
#include "device-layout.h"

#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <stdexcept>
#include <vector>

#include "device-namespace.h"
#include "directory-tree.h"
#include "mount-table.h"
#include "system-error.h"

namespace sandbox {
namespace fs = std::filesystem;
namespace {

// Packages and drives are mounted below these while the device runs.
constexpr const char* kMountPlaces[] = {"/opt/usr/apps/appbinarymanager", "/opt/media"};

void changeMode(const std::string& path, mode_t mode) {
  if (chmod(path.c_str(), mode) != 0) {
    base::throwErrno("cannot set the mode of " + path);
  }
}

void unmountPackagesAndDrives() {
  auto points = base::mountPoints();
  std::reverse(points.begin(), points.end());
  for (const auto& point : points) {
    const bool inside = std::any_of(std::begin(kMountPlaces), std::end(kMountPlaces),
                                    [&](const char* place) { return base::isBelow(point, place); });
    if (inside && umount2(point.c_str(), MNT_DETACH) != 0) {
      base::throwErrno("cannot unmount " + point);
    }
  }
}

bool leadsToMount(const std::string& path, const std::vector<std::string>& mounts) {
  return std::any_of(mounts.begin(), mounts.end(),
                     [&](const std::string& mounted) { return base::isWithin(mounted, path); });
}

void emptyDirectory(const std::string& directory, const std::vector<std::string>& mounts) {
  for (const auto& entry : fs::directory_iterator(directory)) {
    const auto path = entry.path().string();
    if (!leadsToMount(path, mounts)) {
      fs::remove_all(path);
    } else if (std::find(mounts.begin(), mounts.end(), path) == mounts.end()) {
      emptyDirectory(path, mounts);
    }
  }
}

void removeVerifierLibrary() {
  umount2(kVerifierLibrary, MNT_DETACH);  // a mount when the device's directory holds it
  fs::remove(kVerifierLibrary);
}

}  // namespace

void createDeviceDirectories(const std::string& root) {
  if (!root.empty()) {
    fs::create_directories(root);
  }
  createDeviceDirectories(DirectoryTree(root.empty() ? "/" : root));
}

void createDeviceDirectories(const DirectoryTree& tree) {
  for (const auto& directory : kDeviceDirectories) {
    tree.make(directory.path, directory.mode);
  }
}

void clearDevice() {
  if (!insideDevice()) {
    throw std::logic_error("clearDevice outside a device would empty the host's own directories");
  }
  unmountPackagesAndDrives();
  removeVerifierLibrary();
  const auto mounts = base::mountPoints();
  for (const auto& directory : kDeviceDirectories) {
    if (directory.place == Place::Own || directory.place == Place::OverHost) {
      changeMode(directory.path, directory.mode);
      emptyDirectory(fs::canonical(directory.path), mounts);
    }
  }
  createDeviceDirectories("");
}

}  // namespace sandbox
