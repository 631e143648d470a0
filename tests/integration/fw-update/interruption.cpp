// SPDX-License-Identifier: Apache-2.0
// Updates that are cut short, and updates that wait for their turn.
#include <fcntl.h>
#include <semaphore.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>

#include "tool-test.h"

namespace {

using ::testing::HasSubstr;
using ::testing::Not;

class Interruption : public ToolTest, public ::testing::WithParamInterface<int> {
 protected:
  void SetUp() override {
    ToolTest::SetUp();
    installModule("libtuner");
    installImage("tunerfw");
  }
};

// The device's update lock, as the test's own.
class Lock {
 public:
  Lock() : handle_(sem_open("/SEM_UPDATE_CONTROL", O_CREAT, 0600, 1)) {}
  ~Lock() { sem_close(handle_); }
  Lock(const Lock&) = delete;
  Lock& operator=(const Lock&) = delete;

  int value() const {
    int value = -1;
    sem_getvalue(handle_, &value);
    return value;
  }
  void take() { sem_wait(handle_); }
  void release() { sem_post(handle_); }

 private:
  sem_t* handle_;
};

TEST_P(Interruption, ReleasesTheUpdateLock) {
  describeComponent("tunerfw", "stall_at_percent = 40");
  RunningTool update({"update", "libtuner", "--progress", "ndjson"}, {});
  update.waitFor("\"percent\":4");
  EXPECT_EQ(Lock().value(), 0);

  update.kill(GetParam());

  EXPECT_EQ(update.finish(), -GetParam());
  ASSERT_EQ(Lock().value(), 1);
  describeComponent("tunerfw", "");
  EXPECT_EQ(run({"update", "libtuner"}).exitCode, 0);
}

// Whoever gets the lock next may update the same component.
TEST_P(Interruption, ReleasesTheUpdateLockWhenNothingOfTheModuleIsLeft) {
  describeComponent("tunerfw", "stall_at_percent = 40");
  RunningTool update({"update", "libtuner", "--progress", "ndjson"}, {});
  update.waitFor("\"percent\":4");
  const int progress = open("/var/lib/fw-components/tunerfw.progress", O_RDWR | O_CLOEXEC);
  struct flock whole {};
  whole.l_type = F_WRLCK;
  ASSERT_EQ(fcntl(progress, F_OFD_SETLK, &whole), -1);
  Lock lock;

  update.kill(GetParam());
  lock.take();

  EXPECT_EQ(fcntl(progress, F_OFD_SETLK, &whole), 0) << strerror(errno);
  lock.release();
  close(progress);
  EXPECT_EQ(update.finish(), -GetParam());
}

INSTANTIATE_TEST_SUITE_P(BySignal, Interruption, ::testing::Values(SIGINT, SIGTERM, SIGHUP));

using WaitingUpdate = Interruption;

TEST_F(WaitingUpdate, SaysSoAndGoesOnWhenTheLockIsFree) {
  Lock lock;
  lock.take();
  RunningTool update({"update", "libtuner", "--progress", "ndjson"}, {});
  update.waitFor("\"event\":\"waiting\"");

  lock.release();

  EXPECT_EQ(update.finish(), 0);
  EXPECT_EQ(lock.value(), 1);
}

TEST_F(WaitingUpdate, LeavesTheLockToItsOwnerWhenItIsInterrupted) {
  Lock lock;
  lock.take();
  RunningTool update({"update", "libtuner", "--progress", "ndjson"}, {});
  update.waitFor("\"event\":\"waiting\"");

  update.kill(SIGINT);

  EXPECT_EQ(update.finish(), -SIGINT);
  EXPECT_EQ(lock.value(), 0);
  EXPECT_THAT(update.err(), HasSubstr("may hold the lock: " + std::to_string(getpid()) + " ("));
  EXPECT_THAT(update.err(), HasSubstr("Wait until that one has ended"));
  EXPECT_THAT(update.err(), Not(HasSubstr("recover"))) << "it lives";
}

TEST_F(WaitingUpdate, SaysHowToGiveALockBackThatWasLeftTaken) {
  describeComponent("tunerfw", "stall_at_percent = 40");
  RunningTool killed({"update", "libtuner", "--progress", "ndjson"}, {});
  killed.waitFor("\"percent\":4");
  killed.kill(SIGKILL);
  killed.finish();
  RunningTool update({"update", "libtuner", "--progress", "ndjson"}, {});
  update.waitFor("\"event\":\"waiting\"");

  update.kill(SIGTERM);

  EXPECT_EQ(update.finish(), -SIGTERM);
  EXPECT_THAT(update.err(), HasSubstr("has left taken"));
  EXPECT_THAT(update.err(), HasSubstr("Give it back: fw-update lock recover"));
}

TEST_F(WaitingUpdate, OutlivesAReaderThatGoesAway) {
  Lock lock;
  lock.take();
  RunningTool update({"update", "libtuner", "--progress", "ndjson"}, {});
  update.waitFor("\"event\":\"waiting\"");
  update.closeOutput();

  lock.release();

  EXPECT_NE(update.finish(), 0);  // its result could not be put out
  EXPECT_EQ(document({"info", "libtuner"})["version"].asString(), "2.0.0");
}

TEST_F(WaitingUpdate, LeavesASignalIgnoredThatWasIgnoredBefore) {
  std::signal(SIGHUP, SIG_IGN);  // as nohup does; inherited
  Lock lock;
  lock.take();
  RunningTool update({"update", "libtuner", "--progress", "ndjson"}, {});
  std::signal(SIGHUP, SIG_DFL);
  update.waitFor("\"event\":\"waiting\"");

  update.kill(SIGHUP);
  lock.release();

  EXPECT_EQ(update.finish(), 0);
}

// It is overdue after a second, which it would tell.
TEST_F(Interruption, IsNoneWhenTheReaderGoesAwayDuringTheUpdate) {
  installImage("tunerfw", "2.0.0", 1);
  describeComponent("tunerfw", "stall_at_percent = 40");
  RunningTool update({"update", "libtuner", "--progress", "ndjson"}, {});
  update.waitFor("\"percent\":4");

  update.closeOutput();
  update.finish();

  EXPECT_EQ(Lock().value(), 1) << "given back by the library when the time was over";
}

// Holds what recoveries lock: the update cannot give the lock back as its last act.
class OtherRecovery {
 public:
  OtherRecovery() : file_(open("/run/fw-update/recovery.lock", O_RDWR | O_CREAT | O_CLOEXEC, 0600)) {
    flock(file_, LOCK_EX);
  }
  OtherRecovery(const OtherRecovery&) = delete;
  OtherRecovery& operator=(const OtherRecovery&) = delete;
  ~OtherRecovery() { close(file_); }

 private:
  const int file_;
};

TEST_F(Interruption, ReleasesTheUpdateLockBesideARecoveryThatDoesNotEnd) {
  describeComponent("tunerfw", "stall_at_percent = 40");
  RunningTool update({"update", "libtuner", "--progress", "ndjson"}, {});
  update.waitFor("\"percent\":4");
  writeFile("/run/fw-update/recovery.lock", "");
  const OtherRecovery other;

  update.kill(SIGINT);

  EXPECT_EQ(update.finish(), -SIGINT);
  EXPECT_EQ(Lock().value(), 1);
}

TEST_F(Interruption, DoesNotReleaseALockThatIsFreeAlready) {
  describeComponent("tunerfw", "stall_at_percent = 40");
  RunningTool update({"update", "libtuner", "--progress", "ndjson"}, {});
  update.waitFor("\"percent\":4");
  writeFile("/run/fw-update/recovery.lock", "");
  const OtherRecovery other;
  Lock().release();

  update.kill(SIGINT);

  EXPECT_EQ(update.finish(), -SIGINT);
  EXPECT_EQ(Lock().value(), 1);
}

}  // namespace
