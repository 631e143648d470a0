// Tells a device's directory from any other, so that nothing else is written to or
// emptied by mistake.
#ifndef FW_DEVICE_DEVICE_DIRECTORY_H
#define FW_DEVICE_DEVICE_DIRECTORY_H

#include <string>

namespace fwdevice {

// Creates the directory when absent and makes it a device's. Throws Failure when it
// holds anything and is no device, std::system_error when it cannot be written.
void makeDeviceDirectory(const std::string& directory);

// The absolute path. Throws Failure when the directory is no device.
std::string requireDeviceDirectory(const std::string& directory);

}  // namespace fwdevice

#endif
