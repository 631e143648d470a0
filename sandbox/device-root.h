// SPDX-License-Identifier: Apache-2.0
// Builds the root file system of a device: the host's tree with room for the
// device's own directories. Used by enterDevice alone, in the private namespace
// and before the process changes its root. One object, one build.
#ifndef SANDBOX_DEVICE_ROOT_H
#define SANDBOX_DEVICE_ROOT_H

#include <string>
#include <vector>

namespace sandbox {

class DeviceRoot {
 public:
  // scratch: an empty writable directory for the upper layers. root: the empty
  // directory to build in. ownUserNamespace: the caller is not the host's root.
  DeviceRoot(std::string scratch, std::string root, bool ownUserNamespace);

  // path, absolute and normal: something of its own is going to be mounted there, so what
  // is above it must be writable where it does not exist. Before build.
  void makeRoomFor(const std::string& path);

  // Throws std::system_error.
  void build();

 private:
  void placeDirectory(const std::string& path);
  void placeEntry(const std::string& path);
  void mirror(const std::string& path);
  bool overlay(const std::string& path);
  void createChanged(const std::string& root, const std::string& below);
  bool changesWithin(const std::string& path) const;
  bool hostMountsBelow(const std::string& path) const;

  std::string scratch_;
  std::string root_;
  bool ownUserNamespace_;
  std::vector<std::string> replaced_;  // host paths, links resolved, that a device directory covers
  std::vector<std::string> changed_;   // replaced_, those that must be writable, and room made
  std::vector<std::string> hostMounts_;
};

}  // namespace sandbox

#endif
