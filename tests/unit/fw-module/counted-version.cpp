// SPDX-License-Identifier: Apache-2.0
#include "counted-version.h"

#include <gmock/gmock.h>

namespace {

using fwmodule::countedUp;
using fwmodule::newerVersions;
using ::testing::ElementsAre;

TEST(CountedVersion, AddsOneToTheLastNumber) {
  EXPECT_EQ(countedUp("1.2.3"), "1.2.4");
  EXPECT_EQ(countedUp("0"), "1");
  EXPECT_EQ(countedUp("V2.3b"), "V2.4b");
}

TEST(CountedVersion, CarriesOver) {
  EXPECT_EQ(countedUp("1.9"), "1.10");
  EXPECT_EQ(countedUp("1.199"), "1.200");
  EXPECT_EQ(countedUp("99"), "100");
  EXPECT_EQ(countedUp("a009z"), "a010z");
}

TEST(CountedVersion, IsTheFirstOneWhereThereIsNoNumber) {
  EXPECT_EQ(countedUp(""), "1.0.0");
  EXPECT_EQ(countedUp("beta"), "1.0.0");
}

TEST(CountedVersion, CandidatesCountTheLastAndTheFirstNumberUp) {
  EXPECT_THAT(newerVersions("1.2.3"), ElementsAre("1.2.4", "2.2.3"));
  EXPECT_THAT(newerVersions("v9-10b"), ElementsAre("v9-11b", "v10-10b"));
}

TEST(CountedVersion, ACandidateComesOnce) {
  EXPECT_THAT(newerVersions("7"), ElementsAre("8"));
  EXPECT_THAT(newerVersions("none"), ElementsAre("1.0.0"));
}

}  // namespace
