// SPDX-License-Identifier: Apache-2.0
// Fuzz target: the kernel's lists of mounts, as the library counts loop devices in the
// one and as devices find their mounts in the other. The input lies over both files.
#include "mount-table.h"

#include <algorithm>
#include <string>
#include <vector>

#include "fuzz-target.h"
#include "fw-update-mount-manager.h"
#include "input-file.h"
#include "library-device.h"
#include "mounted-over.h"

namespace {

constexpr const char* kInputPath = "/tmp/mounts";

int linesThatBeginWith(std::string_view text, std::string_view beginning) {
  int count = 0;
  while (!text.empty()) {
    count += text.substr(0, beginning.size()) == beginning ? 1 : 0;
    text.remove_prefix(std::min(text.find('\n'), text.size() - 1) + 1);
  }
  return count;
}

void requireMountPointsAreRead(std::string_view input) {
  const std::vector<std::string> points = base::mountPoints();
  const auto lines = std::count(input.begin(), input.end(), '\n') + 1;
  fuzz::require(points.size() <= static_cast<std::size_t>(lines), "a line gives one mount point at most");
  for (const std::string& point : points) {
    fuzz::require(!point.empty(), "a mount point has a name");
  }
}

}  // namespace

void fuzz::prepare(const std::vector<std::string>& visible) {
  enterLibraryDevice(visible);
  const InputFile input(kInputPath);
  // They stay as long as the process and its device.
  static auto& tables = *new std::vector<MountedOver>;
  for (const char* const table : {"/proc/mounts", "/proc/self/mountinfo"}) {
    tables.push_back(MountedOver::file(table, kInputPath));
  }
}

bool fuzz::accepts(std::string_view input) {
  static auto& file = *new InputFile(kInputPath);
  file.fill(input);
  const int mounted = countMountedLoopDevices();
  require(mounted == linesThatBeginWith(input, "/dev/loop"), "each line of a loop device is counted");
  requireMountPointsAreRead(input);
  return mounted > 0;
}
