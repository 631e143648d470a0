// SPDX-License-Identifier: Apache-2.0
#include "drive-watch.h"

#include <fcntl.h>

#include "device-paths.h"
#include "mount-table.h"
#include "system-error.h"

namespace updated {

bool isDrivePlace(const std::string& place) {
  const std::string drive = fwpaths::kUsbDrive;
  return place.compare(0, drive.size(), drive) == 0 &&
         place.find_first_not_of("0123456789", drive.size()) == std::string::npos;
}

DriveWatch::DriveWatch(EventLoop& loop, Found found)
    : found_(std::move(found)), table_(open("/proc/self/mountinfo", O_RDONLY | O_CLOEXEC)) {
  if (!table_) {
    base::throwErrno("/proc/self/mountinfo");
  }
  source_ = loop.whenChanged(table_.get(), [this] { look(); });
  known_ = drives();
}

std::set<DriveWatch::Drive> DriveWatch::drives() {
  std::set<Drive> found;
  for (const base::Mount& mount : base::mounts()) {
    if (isDrivePlace(mount.place)) {
      found.emplace(mount.number, mount.place);
    }
  }
  return found;
}

void DriveWatch::look() {
  const std::set<Drive> before = std::exchange(known_, drives());
  for (const Drive& drive : known_) {
    if (before.count(drive) == 0) {
      found_(drive.second);
    }
  }
}

}  // namespace updated
