// SPDX-License-Identifier: Apache-2.0
// The directories of a device, as a table, and what lays them out. Plain data and
// file-system calls: any process may create the tree below a directory of its own;
// clearDevice is for a process that has entered a device. No function locks.
#ifndef SANDBOX_DEVICE_LAYOUT_H
#define SANDBOX_DEVICE_LAYOUT_H

#include <sys/types.h>

#include <string>

namespace sandbox {

class DirectoryTree;

enum class Place {
  Own,       // replaces what the host has at this path
  OverHost,  // the same, and the host always has the directory
  Inside,    // lies inside one of the above
  Writable,  // stays the host's, but what is written to it is the device's
};

struct DeviceDirectory {
  const char* path;
  mode_t mode;
  Place place;
};

// Parents come before what lies inside them.
inline constexpr DeviceDirectory kDeviceDirectories[] = {
    {"/prd", 0755, Place::Own},
    {"/prd/usr/fwupdate/controls", 0755, Place::Inside},
    {"/lib/firmware/ext", 0755, Place::Own},
    {"/opt/usr/share/sbox", 0755, Place::Own},
    {"/opt/media", 0755, Place::Own},
    {"/opt/usr/apps/appbinarymanager", 0755, Place::Own},
    {"/opt/usr/apps/appbinarymanager/emps", 0755, Place::Inside},
    {"/var/lib/fw-components", 0755, Place::Own},
    {"/var/lib/fw-update", 0755, Place::Own},
    {"/var/lib/fw-updated", 0755, Place::Own},
    {"/etc/fw-update", 0755, Place::Own},
    {"/tmp", 01777, Place::Own},
    {"/dev/shm", 01777, Place::OverHost},
    {"/run", 0755, Place::Own},
    {"/run/lock", 01777, Place::Inside},
    {"/run/user", 0755, Place::Inside},
    {"/usr/lib", 0755, Place::Writable},
    {"/usr/share/fw-update", 0755, Place::Own},
    {"/usr/share/fw-update/keys", 0755, Place::Inside},
};

// The one file that is a device's own in a directory that stays the host's.
inline constexpr char kVerifierLibrary[] = "/usr/lib/libkZAQUser.so";

// Creates each directory of the table below root, with its parents. Directories
// that exist keep their mode; a link that leads out of root is refused. Throws
// std::system_error.
void createDeviceDirectories(const std::string& root);
void createDeviceDirectories(const DirectoryTree& tree);

// Empties every directory of the entered device and creates the table's anew:
// unmounts what is mounted below /opt, removes files, links, semaphores and the
// verifier library. Other mount points stay, with what is mounted on them.
// Throws std::logic_error when this process has not entered a device.
void clearDevice();

}  // namespace sandbox

#endif
