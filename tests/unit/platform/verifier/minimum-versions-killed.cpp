// Who raises a minimum version is killed before each of its system calls.
#include <gmock/gmock.h>
#include <sys/ptrace.h>
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

  // False when it ended before it made so many system calls.
  bool killedAtCall(int call, const std::string& minimum) const {
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
    // Each call stops twice, before and after; the first is where it is killed.
    for (int stop = 0; WIFSTOPPED(status); ++stop) {
      if (stop == 2 * call - 1) {
        ::kill(child, SIGKILL);
        waitpid(child, &status, 0);
        return true;
      }
      ptrace(PTRACE_SYSCALL, child, nullptr, nullptr);
      waitpid(child, &status, 0);
    }
    EXPECT_EQ(status, 0);
    return false;
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

}  // namespace
