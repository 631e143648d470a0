// SPDX-License-Identifier: Apache-2.0
// USB drives that appear after this began: they are mounted at their fixed place. The kernel
// tells when a mount changes; nothing is looked at again and again. One thread.
#ifndef FW_UPDATED_DRIVE_WATCH_H
#define FW_UPDATED_DRIVE_WATCH_H

#include <functional>
#include <set>
#include <string>
#include <utility>

#include "event-loop.h"
#include "file-descriptor.h"

namespace updated {

class DriveWatch {
 public:
  using Found = std::function<void(const std::string& folder)>;

  // Throws std::system_error.
  DriveWatch(EventLoop& loop, Found found);

 private:
  using Drive = std::pair<std::string, std::string>;  // the mount's number and its place

  static std::set<Drive> drives();
  void look();

  const Found found_;
  base::FileDescriptor table_;
  std::set<Drive> known_;
  Source source_;
};

// Whether a USB drive is mounted at that place.
bool isDrivePlace(const std::string& place);

}  // namespace updated

#endif
