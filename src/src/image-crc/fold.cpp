// SPDX-License-Identifier: Apache-2.0
// In vectors of 128 bits: one lane in each.
#if defined(__x86_64__) || defined(__i386__)

#define FOLDING_TARGET IMAGE_CRC_LANE_TARGET
#include "image-crc/folding.h"

namespace imagecrc {
namespace {

struct Vector128 {
  using Type = __m128i;

  FOLDING_TARGET static Type load(const unsigned char* bytes) { return loadLane(bytes); }
  FOLDING_TARGET static Type ofCrc(std::uint32_t crc) { return laneOfCrc(crc); }
  FOLDING_TARGET static Type add(Type a, Type b) { return _mm_xor_si128(a, b); }

  template <unsigned int Bits>
  FOLDING_TARGET static Type moveBy() {
    return imagecrc::moveBy<Bits>();
  }

  FOLDING_TARGET static Type fold(Type lane, Type move, Type met) { return imagecrc::fold(lane, move, met); }
  FOLDING_TARGET static __m128i intoOneLane(Type lane) { return lane; }
};

}  // namespace

bool hasFolding() {
  return __builtin_cpu_supports("pclmul") != 0 && __builtin_cpu_supports("ssse3") != 0;
}

FOLDING_TARGET
std::uint32_t extendByFolding(std::uint32_t crc, const unsigned char* bytes, std::size_t size) {
  return size < kFoldingStep<Vector128> ? extendBySlicing(crc, bytes, size)
                                        : extendInVectors<Vector128>(crc, bytes, size);
}

}  // namespace imagecrc

#endif
