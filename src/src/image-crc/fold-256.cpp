// SPDX-License-Identifier: Apache-2.0
// In vectors of 256 bits: two lanes in each.
#if defined(__x86_64__) || defined(__i386__)

#define FOLDING_TARGET __attribute__((target("avx2,vpclmulqdq,pclmul,ssse3")))
#include "image-crc/folding.h"

namespace imagecrc {
namespace {

struct Vector256 {
  using Type = __m256i;

  FOLDING_TARGET static Type load(const unsigned char* bytes) {
    const Type reversed = _mm256_set_epi32(0x00010203, 0x04050607, 0x08090A0B, 0x0C0D0E0F,  //
                                           0x00010203, 0x04050607, 0x08090A0B, 0x0C0D0E0F);
    return _mm256_shuffle_epi8(_mm256_loadu_si256(reinterpret_cast<const Type*>(bytes)), reversed);
  }

  FOLDING_TARGET static Type ofCrc(std::uint32_t crc) { return _mm256_zextsi128_si256(laneOfCrc(crc)); }
  FOLDING_TARGET static Type add(Type a, Type b) { return _mm256_xor_si256(a, b); }

  template <unsigned int Bits>
  FOLDING_TARGET static Type moveBy() {
    constexpr Move kMove = moveOf(Bits);
    return _mm256_set_epi64x(kMove.high, kMove.low, kMove.high, kMove.low);
  }

  FOLDING_TARGET static Type fold(Type lanes, Type move, Type met) {
    const Type high = _mm256_clmulepi64_epi128(lanes, move, 0x11);
    const Type low = _mm256_clmulepi64_epi128(lanes, move, 0x00);
    return add(add(high, low), met);
  }

  FOLDING_TARGET static __m128i intoOneLane(Type lanes) {
    return imagecrc::fold(_mm256_castsi256_si128(lanes), imagecrc::moveBy<kLaneBits>(),
                          _mm256_extracti128_si256(lanes, 1));
  }
};

}  // namespace

bool hasFolding256() {
  return hasFolding() && __builtin_cpu_supports("avx2") != 0 && __builtin_cpu_supports("vpclmulqdq") != 0;
}

FOLDING_TARGET
std::uint32_t extendByFolding256(std::uint32_t crc, const unsigned char* bytes, std::size_t size) {
  return size < kFoldingStep<Vector256> ? extendByFolding(crc, bytes, size)
                                        : extendInVectors<Vector256>(crc, bytes, size);
}

}  // namespace imagecrc

#endif
