#include "speed-watch.h"

#include <gtest/gtest.h>

namespace {

using namespace std::chrono_literals;
using fwdownload::SpeedWatch;

// Some time after the clock's beginning.
const SpeedWatch::Time start{1000s};

TEST(SpeedWatch, SaysNothingBeforeAPeriodIsOver) {
  SpeedWatch watch(10s);

  EXPECT_FALSE(watch.PeriodOver(0, start));
  EXPECT_FALSE(watch.PeriodOver(5, start + 9999ms));
}

TEST(SpeedWatch, SaysWhatThePeriodBrought) {
  SpeedWatch watch(10s);
  watch.PeriodOver(0, start);

  EXPECT_EQ(watch.PeriodOver(700, start + 10s), 700);
}

TEST(SpeedWatch, CountsEachPeriodByItself) {
  SpeedWatch watch(10s);
  watch.PeriodOver(0, start);
  watch.PeriodOver(5000, start + 11s);

  EXPECT_FALSE(watch.PeriodOver(5003, start + 20s));
  EXPECT_EQ(watch.PeriodOver(5007, start + 21s), 7);
}

}  // namespace
