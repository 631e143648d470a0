// SPDX-License-Identifier: Apache-2.0
#include "occasions.h"

#include <gmock/gmock.h>
#include <json/json.h>

#include <csignal>
#include <cstdlib>
#include <ctime>

#include "daily-window.h"
#include "drive-watch.h"

namespace {

using ::testing::SizeIs;
using updated::Window;

constexpr std::time_t kNoon = 1795348800;  // 2026-11-22 12:00 UTC
constexpr std::time_t kHour = 3600;
constexpr std::time_t kDay = 24 * kHour;

class ServiceOccasions : public ::testing::Test {
 protected:
  static void liveIn(const char* zone) {
    setenv("TZ", zone, 1);
    tzset();
  }
  void TearDown() override { liveIn("UTC"); }
  void SetUp() override { liveIn("UTC"); }
};

TEST_F(ServiceOccasions, BeginAWindowTodayOrTomorrow) {
  EXPECT_EQ(updated::nextBegin({13 * 60, 14 * 60}, kNoon), kNoon + kHour);
  EXPECT_EQ(updated::nextBegin({11 * 60, 14 * 60}, kNoon), kNoon + 23 * kHour);
  EXPECT_EQ(updated::nextBegin({12 * 60, 14 * 60}, kNoon), kNoon + kDay);
}

TEST_F(ServiceOccasions, KnowWhenAWindowEnds) {
  EXPECT_EQ(updated::endOf({11 * 60, 14 * 60}, kNoon), kNoon + 2 * kHour);
  EXPECT_EQ(updated::endOf({23 * 60, 13 * 60}, kNoon), kNoon + kHour);
  EXPECT_EQ(updated::endOf({13 * 60, 14 * 60}, kNoon), 0);
}

TEST_F(ServiceOccasions, GoByLocalTimeAlsoWhenTheClocksChange) {
  liveIn("CET-1CEST,M3.5.0,M10.5.0/3");
  const std::time_t beforeTheChange = 1792861200;  // 2026-10-24 19:00 there; the clocks go back at night

  const std::time_t begins = updated::nextBegin({4 * 60, 5 * 60}, beforeTheChange);

  EXPECT_EQ(begins, beforeTheChange + 10 * kHour);
}

TEST_F(ServiceOccasions, TellAWindowOnceWhileItLasts) {
  updated::EventLoop loop;
  int told = 0;
  const updated::DailyWindow inside(
      loop, {11 * 60, 14 * 60}, [&] { ++told; }, [] { return kNoon; });
  const updated::DailyWindow outside(
      loop, {13 * 60, 14 * 60}, [&] { told += 10; }, [] { return kNoon; });

  EXPECT_EQ(told, 1);
}

// The timer is in the past of the real clock, and fires at once.
TEST_F(ServiceOccasions, TellAWindowWhenItsTimeHasCome) {
  updated::EventLoop loop;
  std::time_t now = 12 * kHour;  // long ago
  int told = 0;
  const updated::DailyWindow window(
      loop, {13 * 60, 14 * 60},
      [&] {
        ++told;
        std::raise(SIGTERM);
      },
      [&] { return now; });
  EXPECT_EQ(told, 0);

  now = 13 * kHour;
  loop.run();

  EXPECT_EQ(told, 1);
}

TEST_F(ServiceOccasions, KnowWhereAUsbDriveIsMounted) {
  EXPECT_TRUE(updated::isDrivePlace("/opt/media/USBDriveA"));
  EXPECT_TRUE(updated::isDrivePlace("/opt/media/USBDriveA12"));
  EXPECT_FALSE(updated::isDrivePlace("/opt/media/USBDriveA/1"));
  EXPECT_FALSE(updated::isDrivePlace("/opt/media/USBDrive"));
  EXPECT_FALSE(updated::isDrivePlace("/opt/media/USBDriveB"));
}

TEST_F(ServiceOccasions, TakeWhatIsPendingFromTheDocument) {
  Json::Value document;
  Json::Value due;
  due["library"] = "libtuner";
  due["pending"] = true;
  due["offeredVersion"] = "2.0.0";
  due["class"] = "security";
  Json::Value other = due;
  other["pending"] = false;
  for (const Json::Value& one : {due, other, Json::Value("x"), Json::Value()}) {
    document["modules"].append(one);
  }

  const auto offers = updated::offersIn(document);

  ASSERT_THAT(offers, SizeIs(1));
  EXPECT_EQ(offers[0].module, "libtuner");
  EXPECT_EQ(offers[0].version, "2.0.0");
  EXPECT_EQ(offers[0].updateClass, "security");
  EXPECT_THAT(updated::offersIn(Json::Value(Json::objectValue)), SizeIs(0));
}

}  // namespace
