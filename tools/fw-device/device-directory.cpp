// SPDX-License-Identifier: Apache-2.0
#include "device-directory.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <stdexcept>
#include <utility>

#include "device-layout.h"
#include "device-namespace.h"
#include "outcome.h"

namespace fwdevice {
namespace fs = std::filesystem;
namespace {

constexpr char kMarker[] = "/.fw-device";

bool isDevice(const sandbox::DirectoryTree& tree) {
  const auto marker = tree.open(kMarker, O_PATH | O_NOFOLLOW);
  struct stat status = {};
  return marker && fstat(marker.get(), &status) == 0 && S_ISREG(status.st_mode);
}

bool isDevice(const std::string& directory) {
  std::error_code unreadable;
  return fs::is_directory(directory, unreadable) && isDevice(sandbox::DirectoryTree(directory));
}

DeviceSystem systemOf(const sandbox::DirectoryTree& tree) {
  return parseSystem(tree.read(kMarker));
}

void writeMarker(const sandbox::DirectoryTree& tree, const DeviceSystem& system) {
  tree.write(kMarker, "This directory holds a device; see fw-device --help.\n" + systemText(system));
}

// What init writes there must not get into the hands of somebody else.
void requireOwner(const sandbox::DirectoryTree& tree, const std::string& directory) {
  if (tree.owner() != geteuid()) {
    throw Failure(Outcome::NoDevice, directory + " belongs to another user (uid " +
                                         std::to_string(tree.owner()) + "); name a directory of your own");
  }
}

void requireNewOrEmpty(const std::string& directory) {
  if (fs::exists(directory) && !fs::is_directory(directory)) {
    throw Failure(Outcome::NoDevice, directory + " is no directory; name a new one");
  }
  if (fs::exists(directory) && !fs::is_empty(directory)) {
    throw Failure(Outcome::NoDevice, directory + " is not empty and no device; name a new directory");
  }
}

}  // namespace

NewDevice makeDeviceDirectory(const std::string& directory, const DeviceSystem& wanted) {
  if (fs::is_directory(directory)) {
    requireOwner(sandbox::DirectoryTree(directory), directory);
  }
  const bool again = isDevice(directory);
  if (!again) {
    requireNewOrEmpty(directory);
  }
  const auto present = again ? systemOf(sandbox::DirectoryTree(directory)) : DeviceSystem();
  const auto system = chooseSystem(wanted, present);
  fs::create_directories(directory);
  sandbox::DirectoryTree tree(directory);
  requireOwner(tree, directory);
  writeMarker(tree, system);
  sandbox::createDeviceDirectories(tree);
  return {std::move(tree), system};
}

std::string requireDeviceDirectory(const std::string& directory) {
  if (!isDevice(directory)) {
    throw Failure(Outcome::NoDevice, directory + " is no device; run fw-device init " + directory + " first");
  }
  try {
    sandbox::requireOwnDevice(sandbox::DirectoryTree(directory), directory);
  } catch (const std::runtime_error& refused) {
    throw Failure(Outcome::NoDevice, refused.what());
  }
  return fs::canonical(directory);
}

DeviceSystem deviceSystem(const std::string& directory) {
  return systemOf(sandbox::DirectoryTree(directory));
}

}  // namespace fwdevice
