// SPDX-License-Identifier: Apache-2.0
// Tells a device's directory from any other, so that nothing else is written to or
// emptied by mistake.
#ifndef FW_DEVICE_DEVICE_DIRECTORY_H
#define FW_DEVICE_DEVICE_DIRECTORY_H

#include <string>

#include "device-system.h"
#include "directory-tree.h"

namespace fwdevice {

struct NewDevice {
  sandbox::DirectoryTree tree;
  DeviceSystem system;
};

// Creates the directory when absent and makes it a device's, on the system that is
// wanted, or else on the one that it had. Throws Failure when the directory holds
// anything and is no device, when it is another user's, or when the system does not do;
// std::system_error when it cannot be written.
NewDevice makeDeviceDirectory(const std::string& directory, const DeviceSystem& wanted);

// The absolute path. Throws Failure when the directory is no device, or one of a user
// who is neither the caller nor root.
std::string requireDeviceDirectory(const std::string& directory);

// The system of a directory that is a device.
DeviceSystem deviceSystem(const std::string& directory);

}  // namespace fwdevice

#endif
