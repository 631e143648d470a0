// SPDX-License-Identifier: Apache-2.0
#include "disk-states.h"

#include <algorithm>
#include <numeric>
#include <random>
#include <set>

namespace powercut {
namespace {

// Beyond this nothing is enumerated, and no total is so large.
constexpr std::size_t kMostPiecesEnumerated = 24;

// A discarded range may read as anything afterwards; as zeros is what most disks give.
std::string contentOf(const DiskLogEntry& entry) {
  return entry.has(DiskLogEntry::Discard) ? std::string(static_cast<std::size_t>(entry.length), '\0')
                                          : entry.data;
}

void addPieces(std::vector<Piece>& pieces, const DiskLogEntry& entry) {
  const std::string content = contentOf(entry);
  for (std::size_t at = 0; at < content.size(); at += kPieceSize) {
    pieces.push_back({entry.offset + at, content.substr(at, kPieceSize)});
  }
}

// A flush comes before the write of its entry, and FUA makes that write alone certain.
void addEntry(std::vector<Epoch>& epochs, const DiskLogEntry& entry) {
  if (entry.has(DiskLogEntry::Flush)) {
    const std::vector<Piece> flushed = epochs.back().pieces;
    const std::size_t marks = epochs.back().marks;
    epochs.push_back({flushed, {}, {}, marks});
  }
  const std::size_t before = epochs.back().pieces.size();
  addPieces(epochs.back().pieces, entry);
  if (epochs.back().pieces.size() == before) {
    return;
  }
  epochs.back().steps.push_back(epochs.back().pieces.size());
  if (entry.has(DiskLogEntry::Fua)) {
    Epoch next = epochs.back();
    next.settled.assign(next.pieces.begin() + static_cast<std::ptrdiff_t>(before), next.pieces.end());
    next.pieces.resize(before);
    next.steps.pop_back();
    epochs.push_back(next);
  }
}

std::size_t selectionCount(const Epoch& epoch) {
  const std::size_t pieces = epoch.pieces.size();
  return pieces > kMostPiecesEnumerated ? SIZE_MAX : std::size_t{1} << pieces;
}

std::vector<Selection> allSelections(const Epoch& epoch) {
  std::vector<Selection> all;
  for (std::size_t bits = 0; bits < selectionCount(epoch); ++bits) {
    Selection selection(epoch.pieces.size());
    for (std::size_t index = 0; index < selection.size(); ++index) {
      selection[index] = ((bits >> index) & 1U) != 0;
    }
    all.push_back(selection);
  }
  return all;
}

Selection prefix(const Epoch& epoch, std::size_t length) {
  Selection selection(epoch.pieces.size());
  std::fill_n(selection.begin(), length, true);
  return selection;
}

// Few, half, or nearly all.
Selection randomSelection(const Epoch& epoch, std::mt19937_64& random) {
  constexpr double kDensities[] = {0.02, 0.2, 0.5, 0.8, 0.98};
  std::bernoulli_distribution taken(kDensities[random() % std::size(kDensities)]);
  Selection selection(epoch.pieces.size());
  std::generate(selection.begin(), selection.end(), [&] { return taken(random); });
  return selection;
}

}  // namespace

std::vector<Epoch> epochsOf(const std::vector<DiskLogEntry>& log, const std::string& from) {
  std::vector<Epoch> epochs(1);
  bool begun = from.empty();
  for (const DiskLogEntry& entry : log) {
    if (entry.has(DiskLogEntry::Mark)) {
      begun = begun || entry.data == from;
      ++epochs.back().marks;
    } else if (begun) {
      addEntry(epochs, entry);
    } else {
      addPieces(epochs.back().settled, entry);
    }
  }
  return epochs;
}

std::vector<Selection> selectionsOf(const Epoch& epoch, std::size_t count, std::uint64_t seed) {
  if (selectionCount(epoch) <= count) {
    return allSelections(epoch);
  }
  std::vector<Selection> selections;
  std::set<Selection> seen;
  const auto add = [&](const Selection& selection) {
    if (selections.size() < count && seen.insert(selection).second) {
      selections.push_back(selection);
    }
  };
  add(prefix(epoch, 0));
  add(prefix(epoch, epoch.pieces.size()));
  for (const std::size_t length : epoch.steps) {
    add(prefix(epoch, length));
  }
  std::mt19937_64 random(seed);
  // Random ones can come twice: there is an end to it where nearly all have come.
  for (std::size_t attempts = 8 * count; attempts > 0 && selections.size() < count; --attempts) {
    add(randomSelection(epoch, random));
  }
  return selections;
}

std::vector<std::size_t> sharesOf(const std::vector<Epoch>& epochs, std::size_t total) {
  std::vector<std::size_t> order(epochs.size());
  std::iota(order.begin(), order.end(), 0);
  std::stable_sort(order.begin(), order.end(), [&](std::size_t one, std::size_t other) {
    return selectionCount(epochs[one]) < selectionCount(epochs[other]);
  });
  std::vector<std::size_t> shares(epochs.size());
  for (std::size_t place = 0; place < order.size(); ++place) {
    const std::size_t fair = total / (order.size() - place);
    const std::size_t share = std::min(selectionCount(epochs[order[place]]), std::max<std::size_t>(fair, 1));
    shares[order[place]] = share;
    total -= std::min(total, share);
  }
  return shares;
}

}  // namespace powercut
