// SPDX-License-Identifier: Apache-2.0
#include "schedule.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <random>
#include <vector>

namespace {

using fleet::parseRetryAfter;
using fleet::Schedule;
using fleet::Trouble;
using std::chrono::hours;
using std::chrono::minutes;
using std::chrono::seconds;

constexpr double kMost = 0.999999;

Schedule with(double dice) {
  return Schedule(minutes(5), [dice] { return dice; });
}

TEST(FleetSchedule, SpreadsTheFirstQuestionOverAnInterval) {
  EXPECT_EQ(with(0).first(), seconds(0));
  EXPECT_EQ(with(0.5).first(), seconds(150));
  EXPECT_LT(with(kMost).first(), minutes(5));
}

TEST(FleetSchedule, KeepsTheServersIntervalOnTheAverage) {
  EXPECT_EQ(with(0).afterAnswer(seconds(1000)), seconds(900));
  EXPECT_EQ(with(0.5).afterAnswer(seconds(1000)), seconds(1000));
  EXPECT_GT(with(kMost).afterAnswer(seconds(1000)), seconds(1099));
  EXPECT_EQ(with(0.5).afterAnswer(std::nullopt), minutes(5));
}

TEST(FleetSchedule, NeverAsksAtOnceNorHardlyEver) {
  EXPECT_EQ(with(0.5).afterAnswer(seconds(1)), seconds(30));
  EXPECT_EQ(with(0.5).afterAnswer(seconds(0)), seconds(30));
  EXPECT_EQ(with(0.5).afterAnswer(hours(9999)), hours(7 * 24));
}

TEST(FleetSchedule, WaitsTwiceAsLongAfterEachTroubleUpToALimit) {
  Schedule schedule = with(0);

  std::vector<Schedule::Pause> pauses;
  for (int number = 0; number < 9; ++number) {
    pauses.push_back(schedule.afterTrouble(Trouble::Passing, std::nullopt));
  }

  EXPECT_THAT(pauses, ::testing::ElementsAre(minutes(1), minutes(2), minutes(4), minutes(8), minutes(16),
                                             minutes(32), hours(1), hours(1), hours(1)));
}

TEST(FleetSchedule, BeginsAnewAfterAnAnswer) {
  Schedule schedule = with(0);
  schedule.afterTrouble(Trouble::Passing, std::nullopt);
  schedule.afterTrouble(Trouble::Passing, std::nullopt);

  schedule.afterAnswer(std::nullopt);

  EXPECT_EQ(schedule.afterTrouble(Trouble::Passing, std::nullopt), minutes(1));
}

TEST(FleetSchedule, WaitsLongerWhereTheSetIsNotKnown) {
  Schedule schedule = with(0);

  EXPECT_EQ(schedule.afterTrouble(Trouble::Refused, std::nullopt), minutes(10));
  EXPECT_EQ(schedule.afterTrouble(Trouble::Refused, std::nullopt), minutes(20));
  for (int number = 0; number < 10; ++number) {
    schedule.afterTrouble(Trouble::Refused, std::nullopt);
  }
  EXPECT_EQ(schedule.afterTrouble(Trouble::Refused, std::nullopt), hours(6));
}

TEST(FleetSchedule, IsNeverEarlierThanItWasAskedFor) {
  EXPECT_EQ(with(0).afterTrouble(Trouble::Passing, seconds(90)), seconds(90));
  EXPECT_EQ(with(0).afterTrouble(Trouble::Passing, seconds(5)), minutes(1));
  EXPECT_EQ(with(0).afterTrouble(Trouble::Passing, hours(1000)), hours(24));
  EXPECT_EQ(with(0).afterTrouble(Trouble::Passing, seconds(-90)), minutes(1));
  EXPECT_EQ(with(0.5).afterTrouble(Trouble::Passing, seconds(100)), seconds(125));
}

TEST(FleetSchedule, BringsAFleetOutOfStepAfterAFailureOfTheServer) {
  std::mt19937 dice(1);
  std::vector<Schedule::Pause> pauses;
  for (int set = 0; set < 1000; ++set) {
    Schedule schedule(minutes(5), [&dice] { return std::uniform_real_distribution<double>(0, 1)(dice); });
    Schedule::Pause pause(0);
    for (int trouble = 0; trouble < 4; ++trouble) {
      pause += schedule.afterTrouble(Trouble::Passing, std::nullopt);
    }
    pauses.push_back(pause);
  }
  std::sort(pauses.begin(), pauses.end());

  EXPECT_GT(pauses[900] - pauses[100], minutes(2));
}

TEST(FleetRetryAfter, IsSecondsOrADate) {
  constexpr std::time_t kNow = 1795348800;  // Sun, 22 Nov 2026 12:00:00 GMT

  EXPECT_EQ(parseRetryAfter("120", kNow), seconds(120));
  EXPECT_EQ(parseRetryAfter("0", kNow), seconds(0));
  EXPECT_EQ(parseRetryAfter("Sun, 22 Nov 2026 12:01:30 GMT", kNow), seconds(90));
  EXPECT_EQ(parseRetryAfter("Sun, 22 Nov 2026 11:00:00 GMT", kNow), seconds(0));
  for (const char* text : {"", "soon", "-1", "1.5", "120 ", "Sun, 22 Nov 2026",
                           "Sun, 22 Nov 2026 12:01:30 GMTx", "99999999999999999999"}) {
    EXPECT_FALSE(parseRetryAfter(text, kNow).has_value()) << text;
  }
}

}  // namespace
