// SPDX-License-Identifier: Apache-2.0
#include "time-text.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <string>

namespace {

using namespace tracetool;

constexpr std::int64_t kSecond = 1000000000;
constexpr std::int64_t kEight = 1800000000 * kSecond;  // 2027-01-15 08:00:00 in UTC

// In a place without summer time, an hour and a half before Greenwich.
class TimeText : public ::testing::Test {
 protected:
  TimeText() { goTo("UTC"); }
  ~TimeText() override {
    unsetenv("TZ");
    tzset();
  }

  static void goTo(const char* zone) {
    setenv("TZ", zone, 1);
    tzset();
  }
};

TEST_F(TimeText, IsOfThisPlace) {
  EXPECT_EQ(dayAndTime(kEight), "2027-01-15 08:00:00");
  goTo("TST-01:30");
  EXPECT_EQ(dayAndTime(kEight), "2027-01-15 09:30:00");
  EXPECT_EQ(timeOfDay(kEight), "09:30:00.000000");
  EXPECT_EQ(parseTime("09:30", kEight), kEight);
}

TEST_F(TimeText, HasMicroseconds) {
  EXPECT_EQ(timeOfDay(kEight + 1999), "08:00:00.000001");
  EXPECT_EQ(timeOfDay(kEight + 999999999), "08:00:00.999999");
  EXPECT_EQ(timeOfDay(kEight - 1), "07:59:59.999999");
}

TEST_F(TimeText, KnowsTheTimeBefore1970) {
  EXPECT_EQ(timeOfDay(0), "00:00:00.000000");
  EXPECT_EQ(timeOfDay(-1000), "23:59:59.999999");
  EXPECT_EQ(timeOfDay(-kSecond), "23:59:59.000000");
  EXPECT_EQ(dayAndTime(-1), "1969-12-31 23:59:59");
}

TEST_F(TimeText, IsReadWithADayOrWithout) {
  EXPECT_EQ(parseTime("2027-01-15T08:00:00", 0), kEight);
  EXPECT_EQ(parseTime("2027-01-15 08:00", 0), kEight);
  EXPECT_EQ(parseTime("2026-12-31T23:59:59", 0), kEight - (14 * 24 + 8) * 3600 * kSecond - kSecond);
  EXPECT_EQ(parseTime("07:59", kEight), kEight - 60 * kSecond);
  EXPECT_EQ(parseTime("07:59:07", kEight), kEight - 53 * kSecond);
}

TEST_F(TimeText, IsReadToTheNanosecond) {
  EXPECT_EQ(parseTime("08:00:00.5", kEight), kEight + kSecond / 2);
  EXPECT_EQ(parseTime("08:00:00.000000001", kEight), kEight + 1);
  EXPECT_EQ(parseTime("08:00:00.123456789", kEight), kEight + 123456789);
  EXPECT_EQ(parseTime("08:00:00", kEight + 5), kEight);
}

TEST_F(TimeText, HasOneOfItsForms) {
  for (const char* good :
       {"00:00", "23:59", "14:03:07", "14:03:07.5", "2026-01-31T14:03", "2026-01-31 14:03:07.25"}) {
    EXPECT_TRUE(isTimeText(good)) << good;
    EXPECT_TRUE(parseTime(good, 0).has_value()) << good;
  }
  for (const char* bad : {"", "noon", "24:00", "14:60", "14:03:60", "1:03", "14", "14:03:07.",
                          "14:03:07.1234567890", "2026-01-31", "2026-1-31T14:03", " 14:03", "14:03 "}) {
    EXPECT_FALSE(isTimeText(bad)) << bad;
    EXPECT_FALSE(parseTime(bad, 0).has_value()) << bad;
  }
}

TEST_F(TimeText, TellsASpanInItsUnit) {
  EXPECT_EQ(spanText(0), "0 us");
  EXPECT_EQ(spanText(999000), "999 us");
  EXPECT_EQ(spanText(1000000), "1.0 ms");
  EXPECT_EQ(spanText(12340000), "12.3 ms");
  EXPECT_EQ(spanText(999940000), "999.9 ms");
  EXPECT_EQ(spanText(kSecond), "1.00 s");
  EXPECT_EQ(spanText(61 * kSecond), "61.00 s");
}

}  // namespace
