// As fold.cpp, with four lanes in each vector.
#if defined(__x86_64__) || defined(__i386__)

#include "image-crc/lane.h"

#define WIDE_TARGET __attribute__((target("avx512f,avx512bw,vpclmulqdq,pclmul,ssse3")))

namespace imagecrc {
namespace {

constexpr std::size_t kVectorSize = 4 * kLaneSize;
constexpr unsigned int kVectorBits = 4 * kLaneBits;

template <unsigned int Bits>
WIDE_TARGET inline __m512i moveLanesBy() {
  constexpr Move kMove = moveOf(Bits);
  return _mm512_set4_epi64(kMove.high, kMove.low, kMove.high, kMove.low);
}

WIDE_TARGET inline __m512i loadLanes(const unsigned char* bytes) {
  const __m512i reversed = _mm512_set4_epi32(0x00010203, 0x04050607, 0x08090A0B, 0x0C0D0E0F);
  return _mm512_shuffle_epi8(_mm512_loadu_si512(bytes), reversed);
}

WIDE_TARGET inline __m512i foldLanes(__m512i lanes, __m512i move, __m512i met) {
  constexpr int kXorOfThree = 0x96;  // as a truth table
  const __m512i high = _mm512_clmulepi64_epi128(lanes, move, 0x11);
  const __m512i low = _mm512_clmulepi64_epi128(lanes, move, 0x00);
  return _mm512_ternarylogic_epi64(high, low, met, kXorOfThree);
}

WIDE_TARGET inline __m128i foldIntoOneLane(__m512i lanes) {
  alignas(kVectorSize) __m128i lane[4];
  _mm512_store_si512(lane, lanes);
  const __m128i next = moveBy<kLaneBits>();
  return fold(fold(fold(lane[0], next, lane[1]), next, lane[2]), next, lane[3]);
}

}  // namespace

bool hasWideFolding() {
  return hasFolding() && __builtin_cpu_supports("avx512f") != 0 && __builtin_cpu_supports("avx512bw") != 0 &&
         __builtin_cpu_supports("vpclmulqdq") != 0;
}

WIDE_TARGET
std::uint32_t extendByWideFolding(std::uint32_t crc, const unsigned char* bytes, std::size_t size) {
  constexpr std::size_t kStep = 4 * kVectorSize;
  if (size < kStep) {
    return extendByFolding(crc, bytes, size);
  }
  __m512i lanes0 = _mm512_xor_si512(loadLanes(bytes), _mm512_zextsi128_si512(laneOfCrc(crc)));
  __m512i lanes1 = loadLanes(bytes + kVectorSize);
  __m512i lanes2 = loadLanes(bytes + 2 * kVectorSize);
  __m512i lanes3 = loadLanes(bytes + 3 * kVectorSize);

  const __m512i step = moveLanesBy<4 * kVectorBits>();
  for (bytes += kStep, size -= kStep; size >= kStep; bytes += kStep, size -= kStep) {
    lanes0 = foldLanes(lanes0, step, loadLanes(bytes));
    lanes1 = foldLanes(lanes1, step, loadLanes(bytes + kVectorSize));
    lanes2 = foldLanes(lanes2, step, loadLanes(bytes + 2 * kVectorSize));
    lanes3 = foldLanes(lanes3, step, loadLanes(bytes + 3 * kVectorSize));
  }

  const __m512i next = moveLanesBy<kVectorBits>();
  const __m512i lanes = foldLanes(foldLanes(foldLanes(lanes0, next, lanes1), next, lanes2), next, lanes3);
  return finishLane(foldIntoOneLane(lanes), bytes, size);
}

}  // namespace imagecrc

#endif
