// SPDX-License-Identifier: Apache-2.0
#include "disk-states.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <numeric>
#include <set>
#include <string>

namespace powercut {
namespace {

using ::testing::ElementsAre;
using ::testing::SizeIs;

DiskLogEntry written(std::uint64_t offset, std::size_t length, std::uint64_t flags = 0) {
  return {flags, offset, length, std::string(length, static_cast<char>('a' + offset / kPieceSize))};
}

DiskLogEntry flushed() {
  return {DiskLogEntry::Flush, 0, 0, ""};
}

DiskLogEntry marked(const std::string& text) {
  return {DiskLogEntry::Mark, 0, 0, text};
}

std::vector<std::uint64_t> offsets(const std::vector<Piece>& pieces) {
  std::vector<std::uint64_t> found;
  std::transform(pieces.begin(), pieces.end(), std::back_inserter(found),
                 [](const Piece& piece) { return piece.offset; });
  return found;
}

Epoch epochOf(std::size_t pieces) {
  Epoch epoch;
  for (std::size_t index = 0; index < pieces; ++index) {
    epoch.pieces.push_back({index * kPieceSize, "x"});
    epoch.steps.push_back(index + 1);
  }
  return epoch;
}

TEST(DiskStates, AFlushSettlesWhatWasWrittenBeforeIt) {
  const auto epochs = epochsOf({written(0, 4096), flushed(), written(4096, 4096)}, "");

  ASSERT_THAT(epochs, SizeIs(2));
  EXPECT_THAT(offsets(epochs[0].pieces), ElementsAre(0));
  EXPECT_THAT(offsets(epochs[1].settled), ElementsAre(0));
  EXPECT_THAT(offsets(epochs[1].pieces), ElementsAre(4096));
}

TEST(DiskStates, AWriteIsTornAtBlocks) {
  const auto epochs = epochsOf({written(4096, 10240), written(0, 512)}, "");

  EXPECT_THAT(offsets(epochs[0].pieces), ElementsAre(4096, 8192, 12288, 0));
  EXPECT_EQ(epochs[0].pieces[2].data.size(), 2048U);
  EXPECT_THAT(epochs[0].steps, ElementsAre(3, 4));
}

TEST(DiskStates, AForcedWriteSettlesItselfAlone) {
  const auto epochs = epochsOf({written(0, 4096), written(4096, 4096, DiskLogEntry::Fua)}, "");

  ASSERT_THAT(epochs, SizeIs(2));
  EXPECT_THAT(offsets(epochs[0].pieces), ElementsAre(0, 4096));
  EXPECT_THAT(offsets(epochs[1].settled), ElementsAre(4096));
  EXPECT_THAT(offsets(epochs[1].pieces), ElementsAre(0));
}

TEST(DiskStates, AFlushWithAWriteComesBeforeIt) {
  const auto epochs = epochsOf({written(0, 4096), written(4096, 4096, DiskLogEntry::Flush)}, "");

  ASSERT_THAT(epochs, SizeIs(2));
  EXPECT_THAT(offsets(epochs[1].settled), ElementsAre(0));
  EXPECT_THAT(offsets(epochs[1].pieces), ElementsAre(4096));
}

TEST(DiskStates, WhatCameBeforeTheFirstMarkIsCertain) {
  const auto epochs = epochsOf({written(0, 4096), flushed(), marked("begin"), written(4096, 4096)}, "begin");

  ASSERT_THAT(epochs, SizeIs(1));
  EXPECT_THAT(offsets(epochs[0].settled), ElementsAre(0));
  EXPECT_THAT(offsets(epochs[0].pieces), ElementsAre(4096));
}

// The cut may come after the mark and yet before anything of the epoch is on the disk.
TEST(DiskStates, AMarkCountsFromItsWholeEpochOn) {
  const auto epochs =
      epochsOf({marked("begin"), flushed(), written(0, 4096), marked("success"), flushed(), written(0, 4096)},
               "begin");

  ASSERT_THAT(epochs, SizeIs(3));
  EXPECT_EQ(epochs[0].marks, 1U);
  EXPECT_EQ(epochs[1].marks, 2U);
  EXPECT_EQ(epochs[2].marks, 2U);
}

TEST(DiskStates, AreAllThereAreWhenTheyAreFew) {
  const auto selections = selectionsOf(epochOf(3), 8, 1);

  EXPECT_EQ(std::set<Selection>(selections.begin(), selections.end()).size(), 8U);
}

TEST(DiskStates, OfManyAreNothingAllEachPrefixAndOthersOnce) {
  const Epoch epoch = epochOf(30);
  const auto selections = selectionsOf(epoch, 100, 1);

  const std::set<Selection> different(selections.begin(), selections.end());
  EXPECT_THAT(selections, SizeIs(100));
  EXPECT_THAT(different, SizeIs(100));
  for (std::size_t length = 0; length <= 30; ++length) {
    Selection prefix(30);
    std::fill_n(prefix.begin(), length, true);
    EXPECT_EQ(different.count(prefix), 1U) << length;
  }
}

TEST(DiskStates, OfTheSameSeedAreTheSame) {
  EXPECT_EQ(selectionsOf(epochOf(30), 100, 7), selectionsOf(epochOf(30), 100, 7));
  EXPECT_NE(selectionsOf(epochOf(30), 100, 7), selectionsOf(epochOf(30), 100, 8));
}

TEST(DiskStates, ShareATotalByWhatEachEpochHas) {
  const auto shares = sharesOf({epochOf(40), epochOf(1), epochOf(0), epochOf(50)}, 100);

  EXPECT_EQ(shares[1], 2U);
  EXPECT_EQ(shares[2], 1U);
  EXPECT_EQ(std::accumulate(shares.begin(), shares.end(), std::size_t{0}), 100U);
  EXPECT_NEAR(static_cast<double>(shares[0]), static_cast<double>(shares[3]), 1);
}

TEST(DiskStates, EachEpochHasOneAtLeast) {
  EXPECT_THAT(sharesOf({epochOf(40), epochOf(40), epochOf(40)}, 2), ElementsAre(1, 1, 1));
}

}  // namespace
}  // namespace powercut
