// SPDX-License-Identifier: Apache-2.0
#include "tool-location.h"

#include <filesystem>

namespace fwdevice {
namespace fs = std::filesystem;

std::string toolDirectory() {
  return fs::read_symlink("/proc/self/exe").parent_path();
}

std::vector<std::string> moduleDirectories(const std::string& programs) {
  std::vector<std::string> directories;
  for (const char* relative : {"../modules", FW_DEVICE_INSTALLED_MODULES, "../lib/fw-update/modules"}) {
    const auto directory = (fs::path(programs) / relative).lexically_normal().string();
    if (directories.empty() || directories.back() != directory) {
      directories.push_back(directory);
    }
  }
  return directories;
}

std::string verifierPath(const std::string& programs) {
  return (fs::path(programs) / "../lib/libkZAQUser.so").lexically_normal();
}

}  // namespace fwdevice
