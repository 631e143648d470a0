// SPDX-License-Identifier: Apache-2.0
#include "lock/lock-users.h"

#include <gtest/gtest.h>

namespace {

using tool::LockRole;
using tool::LockUsers;

LockUsers hiding(std::vector<pid_t> processes) {
  LockUsers found;
  found.hidden = std::move(processes);
  return found;
}

TEST(BlindSpot, IsNoneWhenEveryProcessWasSeen) {
  EXPECT_EQ(LockUsers().blindSpot(), "");
  EXPECT_TRUE(LockUsers().seesAll());
}

TEST(BlindSpot, NamesTheProcessesThatMayNotBeLookedAt) {
  EXPECT_EQ(hiding({7}).blindSpot(), "Process 7 cannot be looked at by this user.");
  EXPECT_EQ(hiding({7, 8}).blindSpot(), "Processes 7, 8 cannot be looked at by this user.");
  EXPECT_FALSE(hiding({7}).seesAll());
}

TEST(BlindSpot, NamesNoMoreThanFive) {
  EXPECT_EQ(hiding({1, 2, 3, 4, 5}).blindSpot(), "Processes 1, 2, 3, 4, 5 cannot be looked at by this user.");
  EXPECT_EQ(hiding({1, 2, 3, 4, 5, 6, 7}).blindSpot(),
            "Processes 1, 2, 3, 4, 5 and 2 more cannot be looked at by this user.");
}

TEST(BlindSpot, IsTheOtherNamespacesOrAllOfProc) {
  LockUsers found;
  found.allNamespaces = false;
  EXPECT_EQ(found.blindSpot(), "Processes outside this PID namespace cannot be seen from here.");
  EXPECT_FALSE(found.seesAll());

  found.allProcesses = false;

  EXPECT_EQ(found.blindSpot(), "/proc does not show all processes here.");
  EXPECT_FALSE(found.seesAll());
}

TEST(LockUser, IsTheSameOnlyInTheSameStateAndWithTheSameStart) {
  const tool::LockUser one{7, 100, "root", "fw-update", LockRole::Waits, 1};
  for (const tool::LockUser& other : {tool::LockUser{8, 100, "root", "fw-update", LockRole::Waits, 1},
                                      tool::LockUser{7, 101, "root", "fw-update", LockRole::Waits, 1},
                                      tool::LockUser{7, 100, "root", "fw-update", LockRole::HasOpen, 1},
                                      tool::LockUser{7, 100, "root", "fw-update", LockRole::Waits, 2}}) {
    EXPECT_FALSE(one == other);
  }

  EXPECT_TRUE(one == (tool::LockUser{7, 100, "another", "name", LockRole::Waits, 1}));
}

}  // namespace
