// SPDX-License-Identifier: Apache-2.0
// In vectors of 512 bits: four lanes in each.
#if defined(__x86_64__) || defined(__i386__)

#define FOLDING_TARGET __attribute__((target("avx512f,avx512bw,vpclmulqdq,pclmul,ssse3")))
#include "image-crc/folding.h"

namespace imagecrc {
namespace {

struct Vector512 {
  using Type = __m512i;

  FOLDING_TARGET static Type load(const unsigned char* bytes) {
    const Type reversed = _mm512_set4_epi32(0x00010203, 0x04050607, 0x08090A0B, 0x0C0D0E0F);
    return _mm512_shuffle_epi8(_mm512_loadu_si512(bytes), reversed);
  }

  FOLDING_TARGET static Type ofCrc(std::uint32_t crc) { return _mm512_zextsi128_si512(laneOfCrc(crc)); }
  FOLDING_TARGET static Type add(Type a, Type b) { return _mm512_xor_si512(a, b); }

  template <unsigned int Bits>
  FOLDING_TARGET static Type moveBy() {
    constexpr Move kMove = moveOf(Bits);
    return _mm512_set4_epi64(kMove.high, kMove.low, kMove.high, kMove.low);
  }

  FOLDING_TARGET static Type fold(Type lanes, Type move, Type met) {
    constexpr int kXorOfThree = 0x96;  // as a truth table
    const Type high = _mm512_clmulepi64_epi128(lanes, move, 0x11);
    const Type low = _mm512_clmulepi64_epi128(lanes, move, 0x00);
    return _mm512_ternarylogic_epi64(high, low, met, kXorOfThree);
  }

  FOLDING_TARGET static __m128i intoOneLane(Type lanes) {
    alignas(sizeof(Type)) __m128i lane[4];
    _mm512_store_si512(lane, lanes);
    const __m128i next = imagecrc::moveBy<kLaneBits>();
    return imagecrc::fold(imagecrc::fold(imagecrc::fold(lane[0], next, lane[1]), next, lane[2]), next,
                          lane[3]);
  }
};

}  // namespace

bool hasFolding512() {
  return hasFolding() && __builtin_cpu_supports("avx512f") != 0 && __builtin_cpu_supports("avx512bw") != 0 &&
         __builtin_cpu_supports("vpclmulqdq") != 0;
}

FOLDING_TARGET
std::uint32_t extendByFolding512(std::uint32_t crc, const unsigned char* bytes, std::size_t size) {
  return size < kFoldingStep<Vector512> ? extendByFolding(crc, bytes, size)
                                        : extendInVectors<Vector512>(crc, bytes, size);
}

}  // namespace imagecrc

#endif
