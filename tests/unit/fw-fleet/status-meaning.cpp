// SPDX-License-Identifier: Apache-2.0
#include "status-meaning.h"

#include <gmock/gmock.h>

namespace {

using fleet::Asked;
using fleet::Meaning;
using fleet::meaningOf;

constexpr Asked kAll[] = {Asked::Poll, Asked::Document, Asked::Feedback, Asked::Artifact};

TEST(FleetStatus, IsGoodWhenItIsWhatWasAskedFor) {
  for (const Asked asked : kAll) {
    EXPECT_EQ(meaningOf(asked, 200), Meaning::Good);
    EXPECT_EQ(meaningOf(asked, 206), asked == Asked::Artifact ? Meaning::Good : Meaning::Later);
    EXPECT_EQ(meaningOf(asked, 204), asked == Asked::Feedback ? Meaning::Good : Meaning::Later);
  }
  EXPECT_EQ(meaningOf(Asked::Poll, 304), Meaning::NotChanged);
  EXPECT_EQ(meaningOf(Asked::Artifact, 304), Meaning::Later);
}

TEST(FleetStatus, EndsAnActionThatTheServerKnowsNoMore) {
  for (const int status : {404, 410}) {
    EXPECT_EQ(meaningOf(Asked::Document, status), Meaning::Gone);
    EXPECT_EQ(meaningOf(Asked::Feedback, status), Meaning::Gone);
    EXPECT_EQ(meaningOf(Asked::Artifact, status), Meaning::Missing);
    EXPECT_EQ(meaningOf(Asked::Poll, status), Meaning::Later);
  }
}

TEST(FleetStatus, IsAPauseWhenTheServerHasTooMuchToDo) {
  for (const Asked asked : kAll) {
    for (const int status : {408, 409, 429, 500, 502, 503, 504, 599}) {
      EXPECT_EQ(meaningOf(asked, status), Meaning::Later) << status;
    }
  }
  EXPECT_EQ(meaningOf(Asked::Feedback, 403), Meaning::Later);
}

TEST(FleetStatus, IsALongPauseWhenTheSetIsNotKnown) {
  for (const Asked asked : kAll) {
    EXPECT_EQ(meaningOf(asked, 401), Meaning::Refused);
  }
  EXPECT_EQ(meaningOf(Asked::Poll, 403), Meaning::Refused);
}

TEST(FleetStatus, HasAnArtifactBeginAnewWhenItChanged) {
  for (const int status : {412, 416}) {
    EXPECT_EQ(meaningOf(Asked::Artifact, status), Meaning::Changed);
    EXPECT_EQ(meaningOf(Asked::Feedback, status), Meaning::Mistake);
  }
}

TEST(FleetStatus, IsAMistakeThatIsNotRepeated) {
  for (const Asked asked : kAll) {
    for (const int status : {400, 405, 406, 415, 418, 499}) {
      EXPECT_EQ(meaningOf(asked, status), Meaning::Mistake) << status;
    }
  }
}

TEST(FleetStatus, IsNothingToRelyOnWhenItIsNoneOfAServers) {
  for (const Asked asked : kAll) {
    for (const int status : {-1, 0, 100, 199, 207, 301, 302, 307, 600, 99999}) {
      EXPECT_EQ(meaningOf(asked, status), Meaning::Later) << status;
    }
  }
}

}  // namespace
