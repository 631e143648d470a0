// SPDX-License-Identifier: Apache-2.0
// Package images and what becomes of them on the device, for the tests of the
// privileged operations. Inside a device only; one thread.
#ifndef TESTS_INTEGRATION_PRIVILEGED_PACKAGE_IMAGES_H
#define TESTS_INTEGRATION_PRIVILEGED_PACKAGE_IMAGES_H

#include <string>
#include <vector>

inline const std::string kPackages = "/opt/usr/apps/appbinarymanager";
inline const std::string kEmps = kPackages + "/emps";

// A name that no other test process uses: loop devices are the whole machine's.
std::string uniquePackageName();

std::string imagePath(const std::string& name);
std::string directoryPath(const std::string& name);

// Makes a real squashfs image that holds one file, "content", and gives its path.
// options: further ones of mksquashfs.
std::string makeImage(const std::string& name, const std::string& content, const std::string& options = "");
// Makes the mount directory and gives its path.
std::string makeDirectory(const std::string& name);

// "-o ro,loop,nodev,nosuid IMAGE DIRECTORY"
std::string mountText(const std::string& name);

struct MountEntry {
  std::string source;
  std::string type;
  std::string options;
};
// What is mounted on a path, by this process's mount table.
std::vector<MountEntry> mountsOn(const std::string& path);

// The loop devices of the machine whose image has this name.
std::vector<std::string> loopDevicesOf(const std::string& name);

// Those of them that stay. A device is let go of when nobody looks at it any more, and
// whoever searches for a free one looks at all; that is waited for, for some seconds.
std::vector<std::string> loopDevicesLeftOf(const std::string& name);

#endif
