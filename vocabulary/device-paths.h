// SPDX-License-Identifier: Apache-2.0
// Where everything lies on a device: the library's fixed places, which commands that work
// beside it know as well. Directories end with a "/".
#ifndef DEVICE_PATHS_H
#define DEVICE_PATHS_H

namespace fwpaths {

inline constexpr char kControls[] = "/prd/usr/fwupdate/controls/";  // modules
inline constexpr char kBuiltinImages[] = "/lib/firmware/ext/";
inline constexpr char kSboxImages[] = "/opt/usr/share/sbox/";
inline constexpr char kUsbDrive[] = "/opt/media/USBDriveA";  // a number may follow
inline constexpr char kPackageImages[] = "/opt/usr/apps/appbinarymanager/";
inline constexpr char kPackageMounts[] = "/opt/usr/apps/appbinarymanager/emps/";
inline constexpr char kVerifierLibrary[] = "/usr/lib/libkZAQUser.so";
inline constexpr char kPendingList[] = "/tmp/fwupdate-off-list.txt";

}  // namespace fwpaths

#endif
