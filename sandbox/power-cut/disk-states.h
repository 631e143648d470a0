// SPDX-License-Identifier: Apache-2.0
// The states that a power cut can leave of a recorded disk. What was written before a
// flush is on the disk; of what came after the last one, any part may be, in any order.
// An epoch is what lies between two flushes. Plain data; no function locks.
#ifndef SANDBOX_POWER_CUT_DISK_STATES_H
#define SANDBOX_POWER_CUT_DISK_STATES_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "disk-log.h"

namespace powercut {

// What a disk writes as a whole, or not at all.
constexpr std::size_t kPieceSize = 4096;

struct Piece {
  std::uint64_t offset = 0;
  std::string data;
};

struct Epoch {
  std::vector<Piece> settled;      // certainly on the disk once it has begun, beside all before
  std::vector<Piece> pieces;       // perhaps on the disk, in the order in which they were written
  std::vector<std::size_t> steps;  // how many pieces each write had completed
  std::size_t marks = 0;           // made before it or in it: the cut may have come after them
};

// The power is cut only behind the mark from; an empty text: from the first write on.
std::vector<Epoch> epochsOf(const std::vector<DiskLogEntry>& log, const std::string& from);

// Which pieces of an epoch are on the disk, one truth value a piece.
using Selection = std::vector<bool>;

// At most count different ones: all there are when these are no more, otherwise each prefix,
// then random ones. The same seed chooses the same.
std::vector<Selection> selectionsOf(const Epoch& epoch, std::size_t count, std::uint64_t seed);

// How many states each epoch gets of a total: small epochs all that they have, the others
// equal shares.
std::vector<std::size_t> sharesOf(const std::vector<Epoch>& epochs, std::size_t total);

}  // namespace powercut

#endif
