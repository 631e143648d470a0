// SPDX-License-Identifier: Apache-2.0
// Puts a process into a device: a private mount and IPC namespace in which the
// fixed paths are the device's own and everything else is the host's or that of
// another root file system, to read: what is written elsewhere stays in memory or is
// refused, to root too. It lasts as long as the process and its children; nothing stays
// behind on the host. To be called early, by a process that has one thread.
#ifndef SANDBOX_DEVICE_NAMESPACE_H
#define SANDBOX_DEVICE_NAMESPACE_H

#include <string>
#include <vector>

namespace sandbox {

struct Device {
  // Holds the device's state: its tree mirrors the device's. Empty: everything is
  // in memory, gone with the namespace.
  std::string directory;
  // Host paths that are to be seen at their own place, such as a build tree below
  // /tmp. A path that contains a directory of the device is left as the device's;
  // one that does not exist is left out.
  std::vector<std::string> keepVisible;
  // The root file system of another system, for example a 32-bit one, that takes the
  // host's place: what is not the device's own is then that system's, to read. Only
  // /proc, /sys and /dev are the host's. Empty: the host's root file system.
  std::string root = {};
  // As keepVisible; but what is written there reaches the host.
  std::vector<std::string> keepWritable = {};
};

class DirectoryTree;

// A device's modules run as whoever enters it: it must be the caller's own, or root's.
// Throws std::runtime_error.
void requireOwnDevice(const DirectoryTree& tree, const std::string& directory);

// Moves the calling process into the device. A process without the right to mount
// also gets a user namespace, in which it is root and owns its own files. The
// current directory is kept when it is still there, else it becomes "/".
// Throws std::system_error or std::runtime_error; the process may then be half-way
// inside and should end.
void enterDevice(const Device& device);

// Whether enterDevice has succeeded in this process, or in its parent before fork.
bool insideDevice();

// For a program that starts another one in its place: names the device that this process
// is in, and lets the next program go on in it. False when that is in another place by now.
std::string deviceIdentity();
bool goOnInDevice(const std::string& identity);

}  // namespace sandbox

#endif
