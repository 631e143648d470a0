// SPDX-License-Identifier: Apache-2.0
#include "module-file.h"

#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "device-paths.h"

namespace {

struct FreeMemory {
  void operator()(void* memory) const { std::free(memory); }
};

std::string resolve(const std::string& path) {
  const std::unique_ptr<char, FreeMemory> resolved(realpath(path.c_str(), nullptr));
  return resolved ? resolved.get() : "";
}

// Of this thread's scan; empty without one.
std::string& scannedDirectory() {
  static thread_local std::string directory;
  return directory;
}

bool isPresentAndNoLink(const std::string& path) {
  char target = 0;
  return readlink(path.c_str(), &target, sizeof target) < 0 && errno == EINVAL;
}

}  // namespace

ControlsDirectoryScan::ControlsDirectoryScan() {
  scannedDirectory() = resolve(fwpaths::kControls);
}

ControlsDirectoryScan::~ControlsDirectoryScan() {
  scannedDirectory().clear();
}

std::string resolveModuleFile(const std::string& path) {
  if (!scannedDirectory().empty()) {
    const std::string file = scannedDirectory() + path.substr(std::strlen(fwpaths::kControls) - 1);
    if (isPresentAndNoLink(file)) {
      return file;
    }
  }
  return resolve(path);
}
