// SPDX-License-Identifier: Apache-2.0
#include "progress/download-reporter.h"

#include <gtest/gtest.h>

namespace {

using appbinaryManager::DownloadProgress;

DownloadProgress received(std::int64_t bytes, std::int64_t total) {
  DownloadProgress progress;
  progress.received = bytes;
  progress.total = total;
  return progress;
}

TEST(DownloadPercent, IsNotKnownWithoutASize) {
  EXPECT_EQ(tool::percentOf(received(5, -1)), std::nullopt);
  EXPECT_EQ(tool::percentOf(received(0, 0)), std::nullopt);
}

TEST(DownloadPercent, IsRoundedDownAndAtMostAll) {
  EXPECT_EQ(tool::percentOf(received(0, 1)), 0u);
  EXPECT_EQ(tool::percentOf(received(299, 1000)), 29u);
  EXPECT_EQ(tool::percentOf(received(1000, 1000)), 100u);
  EXPECT_EQ(tool::percentOf(received(2000, 1000)), 100u);
}

}  // namespace
