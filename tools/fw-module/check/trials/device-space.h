// SPDX-License-Identifier: Apache-2.0
// The memory that holds all of a device's files. For a process on a device in memory.
#ifndef FW_MODULE_CHECK_TRIALS_DEVICE_SPACE_H
#define FW_MODULE_CHECK_TRIALS_DEVICE_SPACE_H

#include <cstdint>

namespace fwmodule {

// Bytes in all files of the device together. Throws std::system_error.
std::uint64_t usedSpace();

// From now on the device has no free byte: whoever writes more is told so. Throws
// std::system_error.
void leaveNoSpace();

}  // namespace fwmodule

#endif
