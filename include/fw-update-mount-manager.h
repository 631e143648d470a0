// SPDX-License-Identifier: Apache-2.0
// Mounts package images read-only through the loop driver and unmounts them.
// Every privileged step is a request to the platform's privileged service. The
// manager keeps no record of its mounts: the system's mount table is the only
// state. Nothing here locks.
#ifndef FW_UPDATE_MOUNT_MANAGER_H
#define FW_UPDATE_MOUNT_MANAGER_H

#include <string>

#include "fw-update-export.h"

class FW_UPDATE_EXPORT FWMountManager {
 public:
  // Never null.
  static FWMountManager* getInstance();

  // Mounts the image file src on the directory dest, which is created (0775, one
  // level) when absent. 0, or -1.
  int Mount(const std::string& src, const std::string& dest);
  // 0, or -1.
  int UMount(const std::string& dir);

  FWMountManager(const FWMountManager&) = delete;
  FWMountManager& operator=(const FWMountManager&) = delete;

 private:
  FWMountManager();
  ~FWMountManager();
};

// Mounts src on dest with these options; when every present loop node is in use,
// creates further nodes, up to /dev/loop249, and tries again.
FW_UPDATE_EXPORT bool loop_mount(const char* src, const char* dest, const char* options);

// Lines of "/proc/mounts" that begin with "/dev/loop".
FW_UPDATE_EXPORT int countMountedLoopDevices();
// Entries of "/dev" that begin with "/dev/loop", the control node left out.
// Throws boost::filesystem::filesystem_error (a std::exception) when "/dev"
// cannot be read.
FW_UPDATE_EXPORT int countPresentLoopDevices();

// Whether path, links followed, names a regular file or a directory.
FW_UPDATE_EXPORT bool IsFile(const char* path);
FW_UPDATE_EXPORT bool IsDir(const char* path);

#endif
