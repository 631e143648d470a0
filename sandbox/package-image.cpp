// SPDX-License-Identifier: Apache-2.0
#include "package-image.h"

#include <fcntl.h>
#include <stdio.h>
#include <unistd.h>

#include <filesystem>
#include <stdexcept>

#include "file-descriptor.h"
#include "firmware-image.h"
#include "program-start.h"
#include "squashfs.h"
#include "system-error.h"
#include "temporary-folder.h"

namespace sandbox {
namespace fs = std::filesystem;
namespace {

// The paths are below directory, which has its own name in no process but this.
int runMksquashfs(int directory, const std::string& folder, const std::string& package) {
  base::ProgramStart start;
  start.withNothingAt(STDOUT_FILENO);
  if (directory != AT_FDCWD) {
    start.in(directory);
  }
  pid_t process = 0;
  if (start.run(image::squashfsCommand(folder, package), {"LC_ALL=C"}, process) != 0) {
    throw std::runtime_error("mksquashfs cannot be run; install the package squashfs-tools");
  }
  return base::waitForEnd(process);
}

void pack(int directory, const std::string& folder, const std::string& image) {
  const auto unfinished = image + ".new";
  unlinkat(directory, unfinished.c_str(), 0);
  if (runMksquashfs(directory, folder, unfinished) != 0) {
    unlinkat(directory, unfinished.c_str(), 0);
    throw std::runtime_error("mksquashfs could not make " + image);
  }
  if (renameat(directory, unfinished.c_str(), directory, image.c_str()) != 0) {
    base::throwErrno("cannot write " + image);
  }
}

}  // namespace

void packFolder(const std::string& folder, const std::string& image) {
  pack(AT_FDCWD, folder, image);
}

void writePackage(const std::string& directory, const std::string& empName, const std::string& firmwareName,
                  const std::string& version, std::size_t bytes, unsigned int expectedTimeSeconds) {
  fs::create_directories(directory);
  const base::FileDescriptor opened(open(directory.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
  if (!opened) {
    base::throwErrno("cannot open " + directory);
  }
  const base::TemporaryFolder folder(opened.path() + "/.package");
  writeFirmware(folder.path(), firmwareName, version, bytes, expectedTimeSeconds);
  pack(opened.get(), fs::path(folder.path()).filename().string() + "/" + firmwareName, empName + ".img");
}

}  // namespace sandbox
