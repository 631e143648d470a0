// SPDX-License-Identifier: Apache-2.0
// The ways to compute the image checksum. Each extends a CRC by bytes at any address
// and of any number, keeps no state and may be called only where it is available.
#ifndef IMAGE_CRC_WAYS_H
#define IMAGE_CRC_WAYS_H

#include <cstddef>
#include <cstdint>

namespace imagecrc {

// Carry-less multiplication of vectors of 512, of 256 and of 128 bits; x86 alone.
bool hasFolding512();
std::uint32_t extendByFolding512(std::uint32_t crc, const unsigned char* bytes, std::size_t size);
bool hasFolding256();
std::uint32_t extendByFolding256(std::uint32_t crc, const unsigned char* bytes, std::size_t size);
bool hasFolding();
std::uint32_t extendByFolding(std::uint32_t crc, const unsigned char* bytes, std::size_t size);

// One table for each of sixteen bytes, on any processor.
std::uint32_t extendBySlicing(std::uint32_t crc, const unsigned char* bytes, std::size_t size);

// Boost.CRC, byte by byte. It states what the checksum is; the other ways leave the
// bytes to it that are too few for them.
std::uint32_t extendByBoost(std::uint32_t crc, const unsigned char* bytes, std::size_t size);

struct Way {
  const char* name;
  bool (*isAvailable)();
  std::uint32_t (*extend)(std::uint32_t crc, const unsigned char* bytes, std::size_t size);
};

constexpr bool everywhere() {
  return true;
}

// Fastest first.
inline constexpr Way kWays[] = {
#if defined(__x86_64__) || defined(__i386__)
    {"fold-512", hasFolding512, extendByFolding512}, {"fold-256", hasFolding256, extendByFolding256},
    {"fold", hasFolding, extendByFolding},
#endif
    {"sliced", everywhere, extendBySlicing},         {"boost", everywhere, extendByBoost},
};

// The first that is available here.
const Way& fastestWay();

}  // namespace imagecrc

#endif
