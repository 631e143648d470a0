// Four lanes side by side, because a multiplication takes several times as long as
// starting the next one.
#if defined(__x86_64__) || defined(__i386__)

#include "image-crc/lane.h"

namespace imagecrc {

bool hasFolding() {
  return __builtin_cpu_supports("pclmul") != 0 && __builtin_cpu_supports("ssse3") != 0;
}

IMAGE_CRC_LANE_TARGET
std::uint32_t extendByFolding(std::uint32_t crc, const unsigned char* bytes, std::size_t size) {
  constexpr std::size_t kStep = 4 * kLaneSize;
  if (size < kStep) {
    return extendBySlicing(crc, bytes, size);
  }
  __m128i lane0 = _mm_xor_si128(loadLane(bytes), laneOfCrc(crc));
  __m128i lane1 = loadLane(bytes + kLaneSize);
  __m128i lane2 = loadLane(bytes + 2 * kLaneSize);
  __m128i lane3 = loadLane(bytes + 3 * kLaneSize);

  const __m128i step = moveBy<4 * kLaneBits>();
  for (bytes += kStep, size -= kStep; size >= kStep; bytes += kStep, size -= kStep) {
    lane0 = fold(lane0, step, loadLane(bytes));
    lane1 = fold(lane1, step, loadLane(bytes + kLaneSize));
    lane2 = fold(lane2, step, loadLane(bytes + 2 * kLaneSize));
    lane3 = fold(lane3, step, loadLane(bytes + 3 * kLaneSize));
  }

  const __m128i next = moveBy<kLaneBits>();
  return finishLane(fold(fold(fold(lane0, next, lane1), next, lane2), next, lane3), bytes, size);
}

}  // namespace imagecrc

#endif
