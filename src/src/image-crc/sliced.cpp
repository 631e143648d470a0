// SPDX-License-Identifier: Apache-2.0
// Sixteen bytes a step: what each contributes is looked up in a table of its own, so
// that no look-up waits for another. Bytes are taken one by one, hence the same on
// every byte order.
#include <array>

#include "image-crc/polynomial.h"
#include "image-crc/ways.h"

namespace imagecrc {
namespace {

constexpr std::size_t kSlices = 16;
using Tables = std::array<std::array<std::uint32_t, 256>, kSlices>;

// tables[i][byte] is the CRC of the byte with Slices - 1 - i zero bytes behind it.
constexpr Tables makeTables() {
  Tables tables{};
  for (std::uint32_t byte = 0; byte < 256; ++byte) {
    std::uint32_t crc = byte << 24U;
    for (std::size_t i = kSlices; i > 0; --i) {
      crc = timesPowerOfX(crc, 8);
      tables[i - 1][byte] = crc;
    }
  }
  return tables;
}

constexpr Tables kByteTables = makeTables();

std::uint32_t crcOfSlices(std::uint32_t crc, const unsigned char* bytes) {
  const std::array<std::uint32_t, 4> first{bytes[0] ^ (crc >> 24U), bytes[1] ^ ((crc >> 16U) & 0xFFU),
                                           bytes[2] ^ ((crc >> 8U) & 0xFFU), bytes[3] ^ (crc & 0xFFU)};
  std::uint32_t result = 0;
  for (std::size_t i = 0; i < first.size(); ++i) {
    result ^= kByteTables[i][first[i]];
  }
  for (std::size_t i = first.size(); i < kSlices; ++i) {
    result ^= kByteTables[i][bytes[i]];
  }
  return result;
}

}  // namespace

std::uint32_t extendBySlicing(std::uint32_t crc, const unsigned char* bytes, std::size_t size) {
  for (; size >= kSlices; bytes += kSlices, size -= kSlices) {
    crc = crcOfSlices(crc, bytes);
  }
  return extendByBoost(crc, bytes, size);
}

}  // namespace imagecrc
