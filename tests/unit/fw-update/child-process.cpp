// SPDX-License-Identifier: Apache-2.0
#include "isolation/child-process.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <vector>

namespace {

std::vector<pid_t> killed;

}  // namespace

// In place of the C library's: a number that is another process's by now is not to be had
// at will. The names in the header are reserved.
// NOLINTNEXTLINE(readability-inconsistent-declaration-parameter-name)
extern "C" int kill(pid_t process, int signal) noexcept {
  killed.push_back(process);
  return static_cast<int>(syscall(SYS_kill, process, signal));
}

namespace {

void waitForItsEnd(tool::ChildProcess& child) {
  while (!child.status()) {
    child.wait(std::chrono::milliseconds(100), [](int, bool) {});
  }
}

TEST(ChildProcess, IsKilledWhileItRuns) {
  tool::ChildProcess child{""};
  while (child.isChild()) {
    pause();
  }
  killed.clear();

  child.kill(SIGKILL);

  EXPECT_EQ(killed, std::vector<pid_t>{child.id()});
  waitForItsEnd(child);
  EXPECT_TRUE(WIFSIGNALED(*child.status()));
}

TEST(ChildProcess, IsNotKilledAfterItsEndWhenItsNumberMayBeAnothers) {
  tool::ChildProcess child{""};
  if (child.isChild()) {
    _exit(0);
  }
  waitForItsEnd(child);
  killed.clear();

  child.kill(SIGTERM);

  EXPECT_TRUE(killed.empty());
}

TEST(ChildProcess, LeavesItsRecordBehind) {
  tool::ChildProcess child{""};
  if (child.isChild()) {
    child.keepRecord().step = tool::Step::Write;
    _exit(0);
  }
  waitForItsEnd(child);

  EXPECT_EQ(child.record().step, tool::Step::Write);
}

TEST(ChildProcess, HasItsSignalsAsTheyWere) {
  tool::ChildProcess child{""};
  if (child.isChild()) {
    raise(SIGTERM);
    _exit(0);
  }
  waitForItsEnd(child);

  EXPECT_TRUE(WIFSIGNALED(*child.status()));
}

}  // namespace
