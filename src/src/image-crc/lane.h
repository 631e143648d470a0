// SPDX-License-Identifier: Apache-2.0
// A lane of folding: 16 bytes of the message as a polynomial of degree 127, the first
// byte most significant. Moving a lane a number of bits on in the message multiplies
// it by that power of x:
//
//   lane = high * x^64 + low
//   lane * x^bits = high * x^(bits + 64) + low * x^bits
//
// With both powers taken modulo the polynomial, the products fit into a lane again,
// which is congruent to what it stands for and can be added to the lane it met.
// For x86 only; whoever calls these needs the same target.
#ifndef IMAGE_CRC_LANE_H
#define IMAGE_CRC_LANE_H

#include <immintrin.h>

#include "image-crc/polynomial.h"
#include "image-crc/ways.h"

#define IMAGE_CRC_LANE_TARGET __attribute__((target("pclmul,ssse3")))

namespace imagecrc {

constexpr std::size_t kLaneSize = 16;
constexpr unsigned int kLaneBits = 128;

// The powers of x that move a lane by so many bits.
struct Move {
  std::int64_t high;
  std::int64_t low;
};

constexpr Move moveOf(unsigned int bits) {
  return {timesPowerOfX(1, bits + 64), timesPowerOfX(1, bits)};
}

template <unsigned int Bits>
IMAGE_CRC_LANE_TARGET inline __m128i moveBy() {
  constexpr Move kMove = moveOf(Bits);
  return _mm_set_epi64x(kMove.high, kMove.low);
}

// Between the order of bytes in memory and in a lane.
IMAGE_CRC_LANE_TARGET inline __m128i reverseBytes(__m128i bytes) {
  return _mm_shuffle_epi8(bytes, _mm_set_epi32(0x00010203, 0x04050607, 0x08090A0B, 0x0C0D0E0F));
}

IMAGE_CRC_LANE_TARGET inline __m128i loadLane(const unsigned char* bytes) {
  return reverseBytes(_mm_loadu_si128(reinterpret_cast<const __m128i*>(bytes)));
}

// A CRC continues when it is added to the first four bytes that follow.
IMAGE_CRC_LANE_TARGET inline __m128i laneOfCrc(std::uint32_t crc) {
  return _mm_set_epi32(static_cast<int>(crc), 0, 0, 0);
}

// The lane moved, plus the lane it met.
IMAGE_CRC_LANE_TARGET inline __m128i fold(__m128i lane, __m128i move, __m128i met) {
  const __m128i high = _mm_clmulepi64_si128(lane, move, 0x11);
  const __m128i low = _mm_clmulepi64_si128(lane, move, 0x00);
  return _mm_xor_si128(_mm_xor_si128(high, low), met);
}

// The CRC of the message that ends with these bytes and whose beginning is congruent
// to the lane.
IMAGE_CRC_LANE_TARGET inline std::uint32_t finishLane(__m128i lane, const unsigned char* bytes,
                                                      std::size_t size) {
  for (; size >= kLaneSize; bytes += kLaneSize, size -= kLaneSize) {
    lane = fold(lane, moveBy<kLaneBits>(), loadLane(bytes));
  }
  unsigned char congruent[kLaneSize];
  _mm_storeu_si128(reinterpret_cast<__m128i*>(congruent), reverseBytes(lane));
  return extendBySlicing(extendBySlicing(0, congruent, kLaneSize), bytes, size);
}

}  // namespace imagecrc

#endif
