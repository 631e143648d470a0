// SPDX-License-Identifier: Apache-2.0
#include "update-all/update-plan.h"

#include <gtest/gtest.h>

namespace {

using tool::PlannedModule;
using tool::UpdatePlan;

PlannedModule module(const char* library, bool due, unsigned int expected) {
  return {library, "", "", due, expected, {}};
}

TEST(UpdatePlan, HasTheModulesThatAreDueInTheirOrder) {
  const UpdatePlan plan{
      {module("libtuner", true, 10), module("libidle", false, 7), module("libwifi", true, 30)}, {}};

  ASSERT_EQ(plan.due().size(), 2u);
  EXPECT_EQ(plan.due()[0].library, "libtuner");
  EXPECT_EQ(plan.due()[1].library, "libwifi");
  EXPECT_DOUBLE_EQ(plan.expectedSeconds(), 40);
}

TEST(UpdatePlan, HoldsThePowerForFiveSecondsMoreOfEachModule) {
  const UpdatePlan plan{
      {module("libtuner", true, 10), module("libidle", false, 7), module("libwifi", true, 30)}, {}};

  EXPECT_EQ(plan.powerHoldMs(), 50000);
  EXPECT_EQ(tool::powerHoldText(plan), "for at most 50 s");
}

TEST(UpdatePlan, HoldsThePowerForATimeBeyondCountingAsTheLibraryDoes) {
  const UpdatePlan negative{{module("libtuner", true, 3000000)}, {}};
  const UpdatePlan small{{module("libtuner", true, 4294963)}, {}};  // 2^32 ms and 704 ms, less than 5 s

  EXPECT_LT(negative.powerHoldMs(), 0);
  EXPECT_EQ(tool::powerHoldText(negative), "until the run is over (the expected times are beyond counting)");
  EXPECT_EQ(small.powerHoldMs(), 704);
  EXPECT_EQ(tool::powerHoldText(small), "for at most 1 s");
}

TEST(UpdatePlan, HoldsThePowerUntilTheRunIsOverWhenTheTimesComeToNothing) {
  EXPECT_EQ(tool::powerHoldText(UpdatePlan()),
            "until the run is over (the expected times are beyond counting)");
}

}  // namespace
