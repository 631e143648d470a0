// SPDX-License-Identifier: Apache-2.0
// Events between real processes, at the real place.
#include "lwipc.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sched.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <climits>
#include <filesystem>
#include <fstream>

#include "child-process.h"
#include "device-environment.h"
#include "limited-resource.h"
#include "mounted-over.h"

namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

constexpr char kEvent[] = "/tmp/.ignore_resume";
constexpr char kDirectory[] = "/run/fw-lwipc";
constexpr char kFile[] = "/run/fw-lwipc/%2Ftmp%2F.ignore_resume";
constexpr int kPatience = 20000;

class LwipcEvent : public DeviceTest {};

char stateOf(pid_t process) {
  std::ifstream file("/proc/" + std::to_string(process) + "/stat");
  std::string number, name;
  char state = '?';
  file >> number >> name >> state;
  return state;
}

// The only thing that these processes sleep in is the wait itself.
class Waiter {
 public:
  explicit Waiter(const char* event = kEvent)
      : child_([event] { return LwipcEventWait(event, kPatience) == 0 ? 0 : 1; }) {
    while (stateOf(child_.id()) == 'R') {
      sched_yield();
    }
  }
  int result() { return child_.wait(); }
  void killNow() {
    child_.kill(SIGKILL);
    child_.wait();
  }
  // Returns when the waiter has handled the signal and sleeps again, or has ended.
  void interrupt(int signal) {
    child_.kill(signal);
    while (stateOf(child_.id()) == 'R') {
      sched_yield();
    }
  }
  unsigned long processorTicks() const {
    std::ifstream file("/proc/" + std::to_string(child_.id()) + "/stat");
    std::string field;
    for (int i = 1; i < 14; ++i) {
      file >> field;
    }
    unsigned long user = 0, system = 0;
    file >> user >> system;
    return user + system;
  }

 private:
  ChildProcess child_;
};

TEST_F(LwipcEvent, WakesEveryProcessThatWaits) {
  Waiter first;
  Waiter second;

  EXPECT_EQ(LwipcEventDone(kEvent), 0);

  EXPECT_EQ(first.result(), 0);
  EXPECT_EQ(second.result(), 0);
}

TEST_F(LwipcEvent, WakesWaitersAlsoWhenAnotherEventWasDoneBefore) {
  ASSERT_EQ(LwipcEventDone("/tmp/another"), 0);
  Waiter waiter;

  EXPECT_EQ(LwipcEventDone(kEvent), 0);

  EXPECT_EQ(waiter.result(), 0);
}

TEST_F(LwipcEvent, WakesWaitersForWhatIsMovedIntoItsPlace) {
  writeFile("/run/prepared/%2Ftmp%2F.ignore_resume", "");
  Waiter forDirectory;

  fs::rename("/run/prepared", kDirectory);

  EXPECT_EQ(forDirectory.result(), 0);
  fs::rename(kFile, "/run/event");
  Waiter forFile;

  fs::rename("/run/event", kFile);

  EXPECT_EQ(forFile.result(), 0);
}

TEST_F(LwipcEvent, WakesWaitersWhoseDirectoryWasMovedAwayOrRemoved) {
  fs::create_directory(kDirectory);
  Waiter moved;

  fs::rename(kDirectory, "/run/away");
  ASSERT_EQ(LwipcEventDone(kEvent), 0);

  EXPECT_EQ(moved.result(), 0);
  fs::remove(kFile);
  Waiter removed;

  fs::remove(kDirectory);
  ASSERT_EQ(LwipcEventDone(kEvent), 0);

  EXPECT_EQ(removed.result(), 0);
}

TEST_F(LwipcEvent, IsStillDoneForOneThatStartsToWaitLater) {
  ASSERT_EQ(LwipcEventDone(kEvent), 0);

  EXPECT_EQ(LwipcEventWait(kEvent, 0), 0);
  EXPECT_EQ(runInChild([] { return LwipcEventWait(kEvent, kPatience) == 0 ? 0 : 1; }), 0);
}

TEST_F(LwipcEvent, CanBeDoneAgain) {
  ASSERT_EQ(LwipcEventDone(kEvent), 0);

  EXPECT_EQ(LwipcEventDone(kEvent), 0);
  EXPECT_EQ(LwipcEventWait(kEvent, 0), 0);
}

TEST_F(LwipcEvent, OutlivesTheProcessThatSignalledIt) {
  ASSERT_EQ(runInChild([] { return LwipcEventDone(kEvent) == 0 ? 0 : 1; }), 0);

  EXPECT_EQ(LwipcEventWait(kEvent, 0), 0);
}

TEST_F(LwipcEvent, IsNotDisturbedByAWaiterThatDied) {
  Waiter doomed;
  Waiter other;

  doomed.killNow();
  EXPECT_EQ(LwipcEventDone(kEvent), 0);

  EXPECT_EQ(other.result(), 0);
}

TEST_F(LwipcEvent, TakesNoProcessorTimeToWait) {
  Waiter waiter;
  const auto before = waiter.processorTicks();

  EXPECT_EQ(LwipcEventWait(kEvent, 1000), -ETIMEDOUT);

  EXPECT_LE(waiter.processorTicks() - before, 2U);
}

TEST_F(LwipcEvent, TellsDifferentNamesApart) {
  ASSERT_EQ(LwipcEventDone("/tmp/a/b"), 0);

  EXPECT_EQ(LwipcEventWait("/tmp/a%2Fb", 0), -ETIMEDOUT);
  EXPECT_EQ(LwipcEventWait("/tmp/a", 0), -ETIMEDOUT);
  EXPECT_EQ(LwipcEventWait("/tmp/a/b", 0), 0);
}

TEST_F(LwipcEvent, EndsTheWaitWhenItsTimeIsOver) {
  const auto start = Clock::now();

  EXPECT_EQ(LwipcEventWait(kEvent, 50), -ETIMEDOUT);

  EXPECT_GE(Clock::now() - start, std::chrono::milliseconds(50));
}

TEST_F(LwipcEvent, IsWaitedForWithoutEndWhenTheTimeIsNegative) {
  ChildProcess waiter([] { return LwipcEventWait(kEvent, -1) == 0 ? 0 : 1; });
  while (stateOf(waiter.id()) == 'R') {
    sched_yield();
  }

  EXPECT_EQ(LwipcEventDone(kEvent), 0);

  EXPECT_EQ(waiter.wait(), 0);
}

TEST_F(LwipcEvent, WaitGoesOnAfterASignal) {
  struct sigaction nothing = {};
  nothing.sa_handler = [](int) {};
  sigaction(SIGUSR1, &nothing, nullptr);
  Waiter waiter;

  waiter.interrupt(SIGUSR1);
  EXPECT_EQ(LwipcEventDone(kEvent), 0);

  EXPECT_EQ(waiter.result(), 0);
}

TEST_F(LwipcEvent, MakesNoFileAtTheNameItself) {
  ASSERT_EQ(LwipcEventDone(kEvent), 0);

  EXPECT_FALSE(exists(kEvent));
}

TEST_F(LwipcEvent, RefusesNamesThatAreNoAbsolutePath) {
  EXPECT_EQ(LwipcEventDone(nullptr), -EINVAL);
  EXPECT_EQ(LwipcEventDone(""), -EINVAL);
  EXPECT_EQ(LwipcEventDone("../x"), -EINVAL);
  EXPECT_EQ(LwipcEventWait(nullptr, 0), -EINVAL);
  const std::string longest = "/" + std::string(NAME_MAX - 3, 'x');  // "/" becomes three
  EXPECT_EQ(LwipcEventDone(longest.c_str()), 0);
  EXPECT_EQ(LwipcEventDone((longest + "x").c_str()), -ENAMETOOLONG);
}

TEST_F(LwipcEvent, KeepsNamesWithDotsInsideItsDirectory) {
  ASSERT_EQ(LwipcEventDone("/../../tmp/out"), 0);

  EXPECT_FALSE(exists("/tmp/out"));
  EXPECT_TRUE(exists(std::string(kDirectory) + "/%2F..%2F..%2Ftmp%2Fout"));
}

TEST_F(LwipcEvent, FollowsNoLinkInPlaceOfItsDirectory) {
  fs::create_directory("/tmp/elsewhere");
  fs::create_symlink("/tmp/elsewhere", kDirectory);

  EXPECT_LT(LwipcEventDone(kEvent), 0);
  EXPECT_LT(LwipcEventWait(kEvent, kPatience), 0);

  EXPECT_TRUE(fs::is_empty("/tmp/elsewhere"));
}

TEST_F(LwipcEvent, FollowsNoLinkInPlaceOfTheEvent) {
  ASSERT_EQ(LwipcEventDone("/tmp/another"), 0);
  fs::create_symlink("/tmp/target", kFile);

  EXPECT_EQ(LwipcEventDone(kEvent), -ELOOP);
  EXPECT_EQ(LwipcEventWait(kEvent, kPatience), -EINVAL);

  EXPECT_FALSE(exists("/tmp/target"));
}

TEST_F(LwipcEvent, RefusesADirectoryThatOthersCanWriteTo) {
  fs::create_directory(kDirectory);
  for (const mode_t mode : {0777U, 0775U, 0757U}) {
    ASSERT_EQ(chmod(kDirectory, mode), 0);

    EXPECT_EQ(LwipcEventDone(kEvent), -EPERM) << mode;
    EXPECT_EQ(LwipcEventWait(kEvent, kPatience), -EPERM) << mode;
  }
}

TEST_F(LwipcEvent, RefusesADirectoryOfAnotherUser) {
  fs::create_directory(kDirectory);
  if (chown(kDirectory, 65534, 65534) != 0) {
    GTEST_SKIP() << "there is no other user here";
  }

  EXPECT_EQ(LwipcEventDone(kEvent), -EPERM);
  EXPECT_EQ(LwipcEventWait(kEvent, kPatience), -EPERM);
}

TEST_F(LwipcEvent, LeavesTheModeOfADirectoryThatWasThere) {
  fs::create_directory(kDirectory);
  ASSERT_EQ(chmod(kDirectory, 0700), 0);

  EXPECT_EQ(LwipcEventDone(kEvent), 0);

  EXPECT_EQ(fs::status(kDirectory).permissions(), static_cast<fs::perms>(0700));
}

TEST_F(LwipcEvent, IsNoPipeAndWaitsForNoReaderOfOne) {
  fs::create_directory(kDirectory);
  ASSERT_EQ(mkfifo(kFile, 0600), 0);

  EXPECT_EQ(LwipcEventDone(kEvent), -ENXIO);
  const int reader = open(kFile, O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  EXPECT_EQ(LwipcEventDone(kEvent), -EINVAL);
  EXPECT_EQ(LwipcEventWait(kEvent, kPatience), -EINVAL);

  close(reader);
}

TEST_F(LwipcEvent, SaysWhyItCannotBeDone) {
  {
    const MountedOver readOnly = MountedOver::memory("/run", "mode=0755", MS_RDONLY);
    EXPECT_EQ(LwipcEventDone(kEvent), -EROFS);
  }
  fs::create_directory(kDirectory);
  const MountedOver readOnly = MountedOver::memory(kDirectory, "mode=0755", MS_RDONLY);
  EXPECT_EQ(LwipcEventDone(kEvent), -EROFS);
}

TEST_F(LwipcEvent, SaysThatThereAreNoMoreDescriptors) {
  const auto noDescriptors = LimitedResource::noDescriptors();

  EXPECT_EQ(LwipcEventWait(kEvent, 0), -EMFILE);
  EXPECT_EQ(LwipcEventDone(kEvent), -EMFILE);
}

TEST_F(LwipcEvent, LetsEverybodyWaitWhateverTheUmask) {
  const mode_t before = umask(077);
  ASSERT_EQ(LwipcEventDone(kEvent), 0);
  umask(before);

  EXPECT_EQ(fs::status(kDirectory).permissions(), static_cast<fs::perms>(0755));
}

}  // namespace
