// SPDX-License-Identifier: Apache-2.0
// The modules and images that the soak updates, in the device that the process has
// entered. Plain functions.
#ifndef TESTS_SOAK_DEVICE_H
#define TESTS_SOAK_DEVICE_H

#include <cstddef>
#include <string>

namespace soak {

inline constexpr int kModules = 5;
// Takes longer than its image says, and so runs out of time after two seconds.
inline constexpr const char* kSlowModule = "libslow";
inline constexpr const char* kProcedureModule = "libEXT-soak";
// How the packages of this run begin, and of no other on this machine: loop devices are
// the machine's.
const std::string& packageName();
// Each worker has one with an extension package of its own.
std::string packageModule(int slot);

void layOut(int slots);
// The library removes a package's image when its update succeeded.
void putPackageImage(int slot);

inline constexpr const char* kUsbDirectory = "/opt/media/USBDriveA/";
std::size_t usbPackageSize();

}  // namespace soak

#endif
