// SPDX-License-Identifier: Apache-2.0
// Makes firmware images as components take them: the binary and its "info.json",
// for demonstration devices and tests. Plain functions, safe from any thread.
#ifndef SANDBOX_FIRMWARE_IMAGE_H
#define SANDBOX_FIRMWARE_IMAGE_H

#include <cstddef>
#include <string>

namespace sandbox {

// The same pseudo-random bytes for the same name and version, on every machine.
std::string imageContent(const std::string& firmwareName, const std::string& version, std::size_t bytes);

// Writes directory/firmwareName/firmwareName.bin with imageContent and "info.json"
// with its CRC beside it, each replaced at once. Throws std::system_error.
void writeFirmware(const std::string& directory, const std::string& firmwareName, const std::string& version,
                   std::size_t bytes, unsigned int expectedTimeSeconds);

// Changes one byte in the middle of such an image, so that "info.json" states the
// CRC of another one. Throws std::system_error.
void corruptFirmware(const std::string& directory, const std::string& firmwareName);

}  // namespace sandbox

#endif
