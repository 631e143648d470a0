// SPDX-License-Identifier: Apache-2.0
#include "package-image.h"

#include <fcntl.h>
#include <spawn.h>
#include <stdio.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <stdexcept>
#include <vector>

#include "file-descriptor.h"
#include "firmware-image.h"
#include "system-error.h"
#include "temporary-folder.h"

namespace sandbox {
namespace fs = std::filesystem;
namespace {

// No time, no owner, and files of mode 0644 whatever the umask: nothing of this
// machine gets into the image. SOURCE_DATE_EPOCH would contradict the times given
// here, so the environment is left out.
// The paths are below directory, which has its own name in no process but this.
int runMksquashfs(int directory, const std::string& folder, const std::string& image) {
  const std::vector<std::string> words = {
      "mksquashfs",         folder,       image,       "-noappend",           "-quiet",
      "-no-progress",       "-no-xattrs", "-all-root", "-mkfs-time",          "0",
      "-all-time",          "0",          "-action",   "chmod(0644)@type(f)", "-action",
      "chmod(0755)@type(d)"};
  std::vector<char*> arguments;
  arguments.reserve(words.size() + 1);
  for (const auto& word : words) {
    arguments.push_back(const_cast<char*>(word.c_str()));
  }
  arguments.push_back(nullptr);
  char* const environment[] = {const_cast<char*>("LC_ALL=C"), nullptr};
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
  if (directory != AT_FDCWD) {
    posix_spawn_file_actions_addfchdir_np(&actions, directory);
  }
  pid_t pid = 0;
  const int error = posix_spawnp(&pid, "mksquashfs", &actions, nullptr, arguments.data(), environment);
  posix_spawn_file_actions_destroy(&actions);
  if (error != 0) {
    throw std::runtime_error("mksquashfs cannot be run; install the package squashfs-tools");
  }
  int status = 0;
  while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  return status;
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
