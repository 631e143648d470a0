// SPDX-License-Identifier: Apache-2.0
// What a device needs for USB packages: the verification library and keys of its
// own, made once and kept. Plain functions.
#ifndef FW_DEVICE_PACKAGE_SECURITY_H
#define FW_DEVICE_PACKAGE_SECURITY_H

#include <filesystem>
#include <string>

#include "directory-tree.h"
#include "file-descriptor.h"

namespace fwdevice {

// Never overwrites a file in place: a running program may have the old one loaded.
void installLibrary(const std::filesystem::path& library, const base::FileDescriptor& directory);

struct PackageSecurity {
  std::string verifier;    // empty when this build has none
  std::string signingKey;  // the maker's secret, outside what programs on the device see
  std::string packageKey;
};

// device is the device's directory, tree the same opened, programs that of the build's
// programs; the paths returned are the host's. Throws std::exception.
PackageSecurity installPackageSecurity(const std::string& device, const sandbox::DirectoryTree& tree,
                                       const std::string& programs);

// Signs the extension package of this name and version, which lies at path, in its place.
// Throws std::exception.
void signPackage(const std::string& path, const std::string& name, const std::string& version,
                 const std::string& signingKey);

}  // namespace fwdevice

#endif
