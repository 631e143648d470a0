// SPDX-License-Identifier: Apache-2.0
#include "speed-watch.h"

#include <gtest/gtest.h>

namespace {

using namespace std::chrono_literals;
using transfer::SpeedWatch;

// Some time after the clock's beginning.
const SpeedWatch::Time kStart{1000s};

TEST(SpeedWatch, SaysNothingBeforeAPeriodIsOver) {
  SpeedWatch watch(10s);

  EXPECT_FALSE(watch.periodOver(0, kStart));
  EXPECT_FALSE(watch.periodOver(5, kStart + 9999ms));
}

TEST(SpeedWatch, SaysWhatThePeriodBrought) {
  SpeedWatch watch(10s);
  watch.periodOver(0, kStart);

  EXPECT_EQ(watch.periodOver(700, kStart + 10s), 700);
}

TEST(SpeedWatch, CountsEachPeriodByItself) {
  SpeedWatch watch(10s);
  watch.periodOver(0, kStart);
  watch.periodOver(5000, kStart + 11s);

  EXPECT_FALSE(watch.periodOver(5003, kStart + 20s));
  EXPECT_EQ(watch.periodOver(5007, kStart + 21s), 7);
}

}  // namespace
