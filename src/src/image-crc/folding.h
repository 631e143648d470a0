// SPDX-License-Identifier: Apache-2.0
// The way that fold.cpp, fold-256.cpp and fold-512.cpp go, each in vectors of its own
// size: four vectors of lanes side by side, because a multiplication takes several times
// as long as starting the next one. A Vector has
//
//   Type                       one or more lanes, the first in the lowest bits
//   load(bytes)                as loadLane
//   ofCrc(crc), add(a, b)      as laneOfCrc, in the first lane; the sum of two vectors
//   moveBy<Bits>()             the powers that move each lane
//   fold(vector, move, met)    as fold of one lane
//   intoOneLane(vector)        the lane at the last one's place
//
// Before the source that has it includes this, it defines FOLDING_TARGET, what its Vector
// needs of the processor.
#ifndef IMAGE_CRC_FOLDING_H
#define IMAGE_CRC_FOLDING_H

#include "image-crc/lane.h"

namespace imagecrc {

template <typename Vector>
constexpr std::size_t kFoldingStep = 4 * sizeof(typename Vector::Type);

// size is one step or more.
template <typename Vector>
FOLDING_TARGET inline std::uint32_t extendInVectors(std::uint32_t crc, const unsigned char* bytes,
                                                    std::size_t size) {
  using Type = typename Vector::Type;
  constexpr std::size_t kSize = sizeof(Type);
  constexpr std::size_t kStep = kFoldingStep<Vector>;
  Type first = Vector::add(Vector::load(bytes), Vector::ofCrc(crc));
  Type second = Vector::load(bytes + kSize);
  Type third = Vector::load(bytes + 2 * kSize);
  Type fourth = Vector::load(bytes + 3 * kSize);

  const Type step = Vector::template moveBy<8 * kStep>();
  for (bytes += kStep, size -= kStep; size >= kStep; bytes += kStep, size -= kStep) {
    first = Vector::fold(first, step, Vector::load(bytes));
    second = Vector::fold(second, step, Vector::load(bytes + kSize));
    third = Vector::fold(third, step, Vector::load(bytes + 2 * kSize));
    fourth = Vector::fold(fourth, step, Vector::load(bytes + 3 * kSize));
  }

  const Type next = Vector::template moveBy<8 * kSize>();
  const Type all = Vector::fold(Vector::fold(Vector::fold(first, next, second), next, third), next, fourth);
  return finishLane(Vector::intoOneLane(all), bytes, size);
}

}  // namespace imagecrc

#endif
