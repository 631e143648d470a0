// SPDX-License-Identifier: Apache-2.0
// Makes extension packages: a firmware image and its "info.json" in a squashfs file.
// Plain functions; they start mksquashfs and wait for it.
#ifndef SANDBOX_PACKAGE_IMAGE_H
#define SANDBOX_PACKAGE_IMAGE_H

#include <cstddef>
#include <string>

namespace sandbox {

// Packs the files of a folder, itself left out. The same files give the same bytes, on
// every machine and at any time. An image that was there is replaced at once. Throws
// std::runtime_error when mksquashfs is missing or fails, std::system_error.
void packFolder(const std::string& folder, const std::string& image);

// directory/empName.img with firmwareName.bin, as writeFirmware makes it, and its
// "info.json". Throws as packFolder does.
void writePackage(const std::string& directory, const std::string& empName, const std::string& firmwareName,
                  const std::string& version, std::size_t bytes, unsigned int expectedTimeSeconds);

}  // namespace sandbox

#endif
