// SPDX-License-Identifier: Apache-2.0
// Which system a device is built on: whose root file system it has, and which build
// its programs and modules come from. Kept in the device's marker. Plain values.
#ifndef FW_DEVICE_DEVICE_SYSTEM_H
#define FW_DEVICE_DEVICE_SYSTEM_H

#include <string>

namespace fwdevice {

struct DeviceSystem {
  std::string root;   // absolute; empty: the host's root file system
  std::string build;  // absolute; empty: the build that this program belongs to
};

// Where the programs of the system's build are.
std::string programDirectory(const DeviceSystem& system);

// What init was told, or else what the device had: a root of "/" is the host's, and
// brings the build of this program back. Paths become absolute. Throws Failure when one
// is not there, or when the build's programs are not for the root's processor.
DeviceSystem chooseSystem(const DeviceSystem& wanted, const DeviceSystem& present);

// As lines of text, and back; a line that is neither is left out.
std::string systemText(const DeviceSystem& system);
DeviceSystem parseSystem(const std::string& text);

}  // namespace fwdevice

#endif
