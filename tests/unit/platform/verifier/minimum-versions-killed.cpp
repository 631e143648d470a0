// SPDX-License-Identifier: Apache-2.0
// Who raises a minimum version is killed before each of its system calls, or held up.
#include <gmock/gmock.h>
#include <sys/ptrace.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <stdexcept>
#include <string>

#include "minimum-versions.h"
#include "temporary-place.h"

namespace {

using State = fwpackage::MinimumVersion::State;

namespace fs = std::filesystem;

class KilledRaise : public TemporaryPlace {
 protected:
  std::string store() const { return path("state/minimum-versions"); }
  int raise(const std::string& minimum) const {
    fwpackage::Statements statements;
    statements.name = "tunerfw";
    statements.minimumVersion = minimum;
    return raiseMinimumVersion(store(), statements);
  }

  // A child that is going to raise, traced and stopped.
  pid_t startStopped(const std::string& minimum) const {
    const pid_t child = fork();
    if (child == 0) {
      ptrace(PTRACE_TRACEME, 0, nullptr, nullptr);
      std::raise(SIGSTOP);
      _exit(raise(minimum) == 0 ? 0 : 1);
    }
    int status = 0;
    if (child < 0 || waitpid(child, &status, 0) != child || !WIFSTOPPED(status)) {
      throw std::runtime_error("no child to trace");
    }
    ptrace(PTRACE_SETOPTIONS, child, nullptr, PTRACE_O_EXITKILL | PTRACE_O_TRACESYSGOOD);
    return child;
  }

  // To its next stop, of which each call has two, before and after; or to its end.
  static int goOn(pid_t child) {
    int status = 0;
    ptrace(PTRACE_SYSCALL, child, nullptr, nullptr);
    waitpid(child, &status, 0);
    return status;
  }

  // False when it ended before it made so many system calls.
  bool killedAtCall(int call, const std::string& minimum) const {
    const pid_t child = startStopped(minimum);
    int status = 0;
    for (int stop = 1; stop < 2 * call; ++stop) {
      status = goOn(child);
      if (!WIFSTOPPED(status)) {
        EXPECT_EQ(status, 0);
        return false;
      }
    }
    ::kill(child, SIGKILL);
    waitpid(child, &status, 0);
    return true;
  }

  static bool isAboutToLock(pid_t child) {
    __ptrace_syscall_info call = {};
    return ptrace(PTRACE_GET_SYSCALL_INFO, child, sizeof call, &call) > 0 &&
           call.op == PTRACE_SYSCALL_INFO_ENTRY && call.entry.nr == SYS_flock;
  }
};

TEST_F(KilledRaise, LeavesTheOldVersionOrTheNewOne) {
  int call = 1;
  bool sawOld = false;
  bool sawNew = false;
  for (bool killed = true; killed; ++call) {
    fs::remove_all(path("state"));
    ASSERT_EQ(raise("1"), 0);

    killed = killedAtCall(call, "2");

    const auto noted = fwpackage::readMinimumVersion(store(), "tunerfw");
    ASSERT_EQ(noted.state, State::Known) << call;
    ASSERT_TRUE(noted.version == "1" || noted.version == "2") << call << " " << noted.version;
    sawOld = sawOld || noted.version == "1";
    sawNew = sawNew || (killed && noted.version == "2");
    ASSERT_EQ(raise("2"), 0) << call;
    ASSERT_EQ(fwpackage::readMinimumVersion(store(), "tunerfw").version, "2") << call;
    ASSERT_FALSE(fs::exists(store() + "/tunerfw.new")) << call;
  }
  EXPECT_TRUE(sawOld && sawNew);
  RecordProperty("points", call - 1);
  EXPECT_GT(call, 15);
}

TEST_F(KilledRaise, OfTheFirstVersionLeavesNoneOrTheNewOne) {
  for (int call = 1; killedAtCall(call, "2"); ++call) {
    const auto noted = fwpackage::readMinimumVersion(store(), "tunerfw");
    ASSERT_TRUE(noted.state == State::None || noted.version == "2") << call;
    ASSERT_EQ(raise("2"), 0) << call;
    ASSERT_EQ(fwpackage::readMinimumVersion(store(), "tunerfw").version, "2") << call;
    fs::remove_all(path("state"));
  }
}

TEST_F(KilledRaise, LeavesAHigherVersionThatAnotherRaisedMeanwhile) {
  ASSERT_EQ(raise("1"), 0);
  const pid_t child = startStopped("2");
  int status = goOn(child);
  while (WIFSTOPPED(status) && !isAboutToLock(child)) {
    status = goOn(child);
  }
  ASSERT_TRUE(WIFSTOPPED(status)) << "it takes no lock";

  EXPECT_EQ(raise("3"), 0);
  while (WIFSTOPPED(status)) {
    status = goOn(child);
  }

  EXPECT_EQ(status, 0);
  EXPECT_EQ(fwpackage::readMinimumVersion(store(), "tunerfw").version, "3");
}

}  // namespace
