// SPDX-License-Identifier: Apache-2.0
// The CRC-32 of firmware images: polynomial 0x01B23CA3, most significant bit
// first, initial value 0, nothing reflected, no final XOR. Tools that write
// "info.json" must use the same. Computed in the fastest of the ways in
// image-crc/ that this processor has; all give the same value.
#ifndef IMAGE_CRC_H
#define IMAGE_CRC_H

#include <cstddef>
#include <cstdint>

// The CRC of what crc stands for, followed by these bytes. Thread-safe.
std::uint32_t extendImageCrc(std::uint32_t crc, const void* bytes, std::size_t size);

#endif
