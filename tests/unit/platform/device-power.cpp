// SPDX-License-Identifier: Apache-2.0
// The power lock against a stand-in for systemd-logind on a bus of the test's own,
// and against files in place of the kernel's wake locks.
#include "device-power.h"

#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <pthread.h>
#include <sched.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <mutex>
#include <new>
#include <set>
#include <utility>

#include "child-process.h"
#include "device-environment.h"
#include "dlog.h"
#include "system-bus.h"

namespace {

std::mutex& logMutex() {
  static auto& mutex = *new std::mutex;
  return mutex;
}

std::vector<std::string>& logLines() {
  static auto& lines = *new std::vector<std::string>;
  return lines;
}

enum class Threads { Start, AreRefused, FindNoMemory };
Threads threads = Threads::Start;
int busWait = 0;  // what waiting for the bus comes to, when it is an error

// How long a wait for the bus in which nothing comes has taken, by the clock, when set.
std::function<std::chrono::microseconds(std::chrono::microseconds asked)> onIdleBusWait;
std::atomic<std::chrono::microseconds> clockAhead{std::chrono::microseconds(0)};
constexpr std::uint64_t kIdleMicroseconds = 200000;

}  // namespace

extern "C" __attribute__((visibility("default"))) int sd_bus_wait(sd_bus* bus, std::uint64_t microseconds) {
  using Wait = int(sd_bus*, std::uint64_t);
  static auto* const kReal = reinterpret_cast<Wait*>(dlsym(RTLD_NEXT, "sd_bus_wait"));
  if (busWait < 0) {
    return busWait;
  }
  if (!onIdleBusWait) {
    return kReal(bus, microseconds);
  }
  const int ready = kReal(bus, std::min(microseconds, kIdleMicroseconds));
  if (ready == 0) {
    clockAhead = clockAhead.load() + onIdleBusWait(std::chrono::microseconds(microseconds));
  }
  return ready;
}

// std::chrono::steady_clock::now() of the program and its libraries.
std::chrono::steady_clock::time_point steadyNow() noexcept __asm__("_ZNSt6chrono3_V212steady_clock3nowEv")
    __attribute__((visibility("default")));

std::chrono::steady_clock::time_point steadyNow() noexcept {
  using Now = std::chrono::steady_clock::time_point();
  static auto* const kReal = reinterpret_cast<Now*>(dlsym(RTLD_NEXT, "_ZNSt6chrono3_V212steady_clock3nowEv"));
  return kReal() + clockAhead.load();
}

// A thread that cannot be started, when a test says so.
extern "C" __attribute__((visibility("default"))) int pthread_create(pthread_t* thread,
                                                                     const pthread_attr_t* attributes,
                                                                     void* (*start)(void*), void* argument) {
  using Create = int(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*);
  static auto* const kReal = reinterpret_cast<Create*>(dlsym(RTLD_NEXT, "pthread_create"));
  if (threads == Threads::FindNoMemory) {
    throw std::bad_alloc();
  }
  return threads == Threads::AreRefused ? EAGAIN : kReal(thread, attributes, start, argument);
}

int __dlog_print(int, int priority, const char* tag, const char* format, ...) {
  char text[256];
  va_list arguments;
  va_start(arguments, format);
  const int length = std::vsnprintf(text, sizeof text, format, arguments);
  va_end(arguments);
  const std::lock_guard<std::mutex> lock(logMutex());
  logLines().push_back(std::to_string(priority) + " " + tag + " " + text);
  return length;
}

namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::MatchesRegex;
using ::testing::SizeIs;

using Clock = std::chrono::steady_clock;

constexpr int kLong = 600000;

std::vector<std::string> logged() {
  const std::lock_guard<std::mutex> lock(logMutex());
  return logLines();
}

std::set<int> numbersIn(const char* directory) {
  std::set<int> numbers;
  DIR* const listing = opendir(directory);
  while (const dirent* const entry = readdir(listing)) {
    if (entry->d_name[0] != '.') {
      numbers.insert(std::atoi(entry->d_name));
    }
  }
  numbers.erase(dirfd(listing));
  closedir(listing);
  return numbers;
}

char stateOf(int thread) {
  std::ifstream file("/proc/self/task/" + std::to_string(thread) + "/stat");
  std::string number, name;
  char state = '?';
  file >> number >> name >> state;
  return state;
}

// Until another thread of this process waits for something.
void awaitSleep(int thread) {
  while (thread != getpid() && stateOf(thread) == 'R') {
    sched_yield();
  }
}

// The signals, as bits, that a thread of this process does not take when it waits: one
// that begins takes none for a moment.
std::uint64_t blockedSignals(int thread) {
  awaitSleep(thread);
  std::ifstream status("/proc/self/task/" + std::to_string(thread) + "/status");
  for (std::string word; status >> word;) {
    if (word == "SigBlk:") {
      std::uint64_t bits = 0;
      status >> std::hex >> bits;
      return bits;
    }
  }
  return 0;
}

class DevicePower : public DeviceTest {
 protected:
  void SetUp() override {
    DeviceTest::SetUp();
    threads = Threads::Start;
    onIdleBusWait = nullptr;
    setenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/run/no-bus-here", 1);
    // Whatever the kernel of this machine has.
    ASSERT_EQ(mount("tmpfs", "/sys/power", "tmpfs", 0, ""), 0);
  }
  void TearDown() override { umount2("/sys/power", MNT_DETACH); }

  static void giveKernelWakeLocks() {
    writeFile("/sys/power/wake_lock", "");
    writeFile("/sys/power/wake_unlock", "");
  }
};

class DevicePowerWithLogind : public DevicePower {
 protected:
  void SetUp() override {
    DevicePower::SetUp();
    bus_ = std::make_unique<SystemBus>();
    logind_ = std::make_unique<LogindStandIn>(*bus_);
  }
  void TearDown() override {
    logind_.reset();
    bus_.reset();
    DevicePower::TearDown();
  }

  std::unique_ptr<SystemBus> bus_;
  std::unique_ptr<LogindStandIn> logind_;
};

// A process that holds the power until it is told to end, or killed.
class Holder {
 public:
  Holder() : child_([this] { return hold(); }) { awaitByte(held_[0]); }
  void end() {
    // A byte, not the pipe's end: a later holder has that end too.
    [[maybe_unused]] const ssize_t told = write(end_[1], "e", 1);
    child_.wait();
  }
  void killNow() {
    child_.kill(SIGKILL);
    child_.wait();
  }

 private:
  struct Pipe {
    Pipe() {
      if (pipe(ends) != 0) {
        std::abort();
      }
    }
    int operator[](int end) const { return ends[end]; }
    int ends[2];
  };
  static void awaitByte(int descriptor) {
    char byte;
    while (read(descriptor, &byte, 1) < 0 && errno == EINTR) {
    }
  }
  int hold() const {
    if (device_power_lock_state(2, kLong) != 0) {
      return 1;
    }
    [[maybe_unused]] const ssize_t told = write(held_[1], "h", 1);
    awaitByte(end_[0]);
    return device_power_unlock_state(2) == 0 ? 0 : 1;
  }

  Pipe held_;
  Pipe end_;
  ChildProcess child_;
};

TEST_F(DevicePowerWithLogind, BlocksShutdownSleepAndIdleUntilUnlocked) {
  ASSERT_EQ(device_power_lock_state(2, kLong), 0);

  const auto during = logind_->inhibitors();
  ASSERT_THAT(during, SizeIs(1));
  EXPECT_EQ(during[0].what, "shutdown:sleep:idle");
  EXPECT_EQ(during[0].mode, "block");
  EXPECT_EQ(during[0].who, "fw-update-control");
  EXPECT_EQ(during[0].why, "firmware is being updated (power state 2)");
  EXPECT_EQ(device_power_unlock_state(2), 0);
  EXPECT_TRUE(logind_->waitForInhibitors(0));
  EXPECT_THAT(logged(), IsEmpty());
}

TEST_F(DevicePowerWithLogind, ReleasesByItselfWhenTheHoldTimeIsOver) {
  const auto start = Clock::now();
  ASSERT_EQ(device_power_lock_state(2, 700), 0);
  ASSERT_THAT(logind_->inhibitors(), SizeIs(1));

  ASSERT_TRUE(logind_->waitForInhibitors(0));

  EXPECT_GE(Clock::now() - start, std::chrono::milliseconds(700));
  EXPECT_EQ(device_power_unlock_state(2), -ENOENT);
  EXPECT_THAT(logged(), ElementsAre("5 FWUPDATE device power: the hold time of state 2 is over; the power is "
                                    "released"));
}

TEST_F(DevicePowerWithLogind, CanBeHeldAgainAfterTheHoldTimeWasOver) {
  ASSERT_EQ(device_power_lock_state(2, 1), 0);
  ASSERT_TRUE(logind_->waitForInhibitors(0));

  ASSERT_EQ(device_power_lock_state(2, 1), 0);

  EXPECT_TRUE(logind_->waitForInhibitors(0));
}

TEST_F(DevicePowerWithLogind, IsReleasedByTheKernelWhenTheHolderIsKilled) {
  Holder holder;
  ASSERT_THAT(logind_->inhibitors(), SizeIs(1));

  holder.killNow();

  EXPECT_TRUE(logind_->waitForInhibitors(0));
}

TEST_F(DevicePowerWithLogind, TwoProcessesHoldIndependently) {
  Holder one;
  Holder other;
  ASSERT_THAT(logind_->inhibitors(), SizeIs(2));

  one.end();
  EXPECT_TRUE(logind_->waitForInhibitors(1));
  other.killNow();

  EXPECT_TRUE(logind_->waitForInhibitors(0));
}

TEST_F(DevicePowerWithLogind, TwoHoldsOfOneProcessNeedTwoUnlocks) {
  ASSERT_EQ(device_power_lock_state(2, kLong), 0);
  ASSERT_EQ(device_power_lock_state(2, kLong), 0);

  EXPECT_EQ(device_power_unlock_state(2), 0);
  EXPECT_TRUE(logind_->waitForInhibitors(1));
  EXPECT_EQ(device_power_unlock_state(2), 0);

  EXPECT_TRUE(logind_->waitForInhibitors(0));
  EXPECT_EQ(device_power_unlock_state(2), -ENOENT);
}

TEST_F(DevicePowerWithLogind, NeedsOneThreadHoweverMuchIsHeldAndNoneForNothing) {
  ASSERT_EQ(device_power_lock_state(2, kLong), 0);
  ASSERT_EQ(device_power_lock_state(2, kLong), 0);
  const std::set<int> threadsWhileHeld = numbersIn("/proc/self/task");
  EXPECT_THAT(threadsWhileHeld, SizeIs(2));
  for (const int thread : threadsWhileHeld) {
    awaitSleep(thread);
  }

  device_power_unlock_state(2);
  device_power_unlock_state(2);

  const auto patience = Clock::now() + std::chrono::seconds(20);
  while (numbersIn("/proc/self/task").size() > 1 && Clock::now() < patience) {
    sched_yield();
  }
  EXPECT_THAT(numbersIn("/proc/self/task"), SizeIs(1));
}

TEST_F(DevicePowerWithLogind, UnlockGivesBackTheHoldThatWouldEndFirst) {
  ASSERT_EQ(device_power_lock_state(2, kLong), 0);
  ASSERT_EQ(device_power_lock_state(2, 2000), 0);

  ASSERT_EQ(device_power_unlock_state(2), 0);
  ASSERT_EQ(device_power_lock_state(3, 2500), 0);
  ASSERT_TRUE(logind_->waitForInhibitors(1));

  // State 3 ended by itself; the long hold of state 2 is the one that is left.
  EXPECT_EQ(device_power_unlock_state(3), -ENOENT);
  EXPECT_EQ(device_power_unlock_state(2), 0);
}

TEST_F(DevicePowerWithLogind, UnlockOfAnotherStateReleasesNothing) {
  ASSERT_EQ(device_power_lock_state(2, kLong), 0);

  EXPECT_EQ(device_power_unlock_state(1), -ENOENT);

  EXPECT_THAT(logind_->inhibitors(), SizeIs(1));
}

class NoThread : public DevicePowerWithLogind, public ::testing::WithParamInterface<Threads> {};
INSTANTIATE_TEST_SUITE_P(Reasons, NoThread, ::testing::Values(Threads::AreRefused, Threads::FindNoMemory));

TEST_P(NoThread, HoldsNothingThatItCouldNotGiveBackInTime) {
  threads = GetParam();
  const int refused = device_power_lock_state(2, kLong);
  threads = Threads::Start;

  EXPECT_EQ(refused, GetParam() == Threads::AreRefused ? -EAGAIN : -ENOMEM);
  EXPECT_TRUE(logind_->waitForInhibitors(0));
  EXPECT_EQ(device_power_unlock_state(2), -ENOENT);
  EXPECT_EQ(device_power_lock_state(2, 1), 0);
  EXPECT_TRUE(logind_->waitForInhibitors(0)) << "the next one has its thread";
}

TEST_F(DevicePowerWithLogind, LeavesTheProgramsSignalsToItsOwnThreads) {
  const std::uint64_t before = blockedSignals(getpid());

  ASSERT_EQ(device_power_lock_state(2, kLong), 0);

  std::set<int> others = numbersIn("/proc/self/task");
  others.erase(getpid());
  EXPECT_THAT(others, SizeIs(1));
  for (const int thread : others) {
    for (const int signal : {SIGHUP, SIGINT, SIGTERM, SIGUSR1, SIGCHLD, SIGALRM, SIGPIPE, SIGRTMAX}) {
      EXPECT_NE(blockedSignals(thread) & (std::uint64_t{1} << (signal - 1)), 0U) << strsignal(signal);
    }
  }
  EXPECT_EQ(blockedSignals(getpid()), before);
}

TEST_F(DevicePowerWithLogind, EndsTheHoldAlthoughAProgramThatWasStartedMeanwhileGoesOn) {
  const std::set<int> before = numbersIn("/proc/self/fd");
  const int standardInput = dup(STDIN_FILENO);
  close(STDIN_FILENO);
  ASSERT_EQ(device_power_lock_state(2, kLong), 0);
  const bool standardInputTaken = fcntl(STDIN_FILENO, F_GETFD) >= 0;
  dup2(standardInput, STDIN_FILENO);
  close(standardInput);

  EXPECT_FALSE(standardInputTaken);
  std::set<int> opened = numbersIn("/proc/self/fd");
  for (const int descriptor : before) {
    opened.erase(descriptor);
  }
  ASSERT_THAT(opened, SizeIs(1));
  EXPECT_EQ(fcntl(*opened.begin(), F_GETFD), FD_CLOEXEC);
}

class AbsurdTime : public DevicePowerWithLogind, public ::testing::WithParamInterface<int> {};
INSTANTIATE_TEST_SUITE_P(Values, AbsurdTime, ::testing::Values(0, -1, INT_MIN, INT_MAX));

TEST_P(AbsurdTime, IsHeldUntilUnlocked) {
  ASSERT_EQ(device_power_lock_state(2, GetParam()), 0);

  EXPECT_THAT(logind_->inhibitors(), SizeIs(1));
  EXPECT_EQ(device_power_unlock_state(2), 0);
  EXPECT_TRUE(logind_->waitForInhibitors(0));
  EXPECT_THAT(logged(), SizeIs(GetParam() > 0 ? 0 : 1));
}

TEST_F(DevicePowerWithLogind, HoldsThePowerThoughLogindTakesSeconds) {
  logind_->stop();
  bool stopped = true;
  onIdleBusWait = [&](auto asked) {
    const bool first = std::exchange(stopped, false);
    logind_->resume();
    return first ? std::min<std::chrono::microseconds>(asked, std::chrono::seconds(4)) : asked * 0;
  };

  EXPECT_EQ(device_power_lock_state(2, kLong), 0);

  EXPECT_FALSE(stopped);
  EXPECT_THAT(logind_->inhibitors(), SizeIs(1));
  EXPECT_THAT(logged(), IsEmpty());
}

TEST_F(DevicePowerWithLogind, DoesNotWaitLongForALogindThatHangs) {
  logind_->stop();
  onIdleBusWait = [](auto asked) { return asked; };
  const auto start = Clock::now();

  EXPECT_EQ(device_power_lock_state(2, kLong), -ETIMEDOUT);

  EXPECT_LT(Clock::now() - start, std::chrono::seconds(30));
  EXPECT_THAT(logged(), SizeIs(1));
  logind_->resume();
  EXPECT_TRUE(logind_->waitForInhibitors(0)) << "an answer that came too late is held";
}

TEST_F(DevicePowerWithLogind, IsNotHeldWhenItsAnswerCannotBeWaitedFor) {
  busWait = -EIO;
  const int status = device_power_lock_state(2, kLong);
  busWait = 0;

  EXPECT_EQ(status, -EIO);
  EXPECT_THAT(logged(), SizeIs(1));
}

TEST_F(DevicePowerWithLogind, PrefersLogindToTheKernel) {
  giveKernelWakeLocks();

  ASSERT_EQ(device_power_lock_state(2, kLong), 0);

  EXPECT_EQ(readFile("/sys/power/wake_lock"), "");
}

TEST_F(DevicePower, TellsThatLogindRefuses) {
  const SystemBus bus;
  const LogindStandIn logind(bus, LogindStandIn::Answers::AccessDenied);

  EXPECT_EQ(device_power_lock_state(2, kLong), -EACCES);

  EXPECT_THAT(logged(),
              ElementsAre("5 FWUPDATE device power: state 2 is not held (logind: Permission denied; kernel "
                          "wake lock: No such file or directory)"));
}

TEST_F(DevicePower, HoldsNothingWithAnAnswerThatIsNoDescriptor) {
  const SystemBus bus;
  const LogindStandIn logind(bus, LogindStandIn::Answers::Text);

  EXPECT_EQ(device_power_lock_state(2, kLong), -EBADMSG);

  EXPECT_THAT(logged(), ElementsAre("5 FWUPDATE device power: state 2 is not held (logind: Bad message; "
                                    "kernel wake lock: No such file or directory)"));
}

TEST_F(DevicePower, SaysThatABusWithoutLogindHasNoPowerLock) {
  const SystemBus bus;

  EXPECT_EQ(device_power_lock_state(2, kLong), -ENOSYS);

  EXPECT_THAT(logged(), SizeIs(1));
}

TEST_F(DevicePower, DoesNotWaitLongForABusThatNeverAnswers) {
  const int listener = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_un address = {AF_UNIX, "/run/silent-bus"};
  ASSERT_EQ(bind(listener, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
  ASSERT_EQ(listen(listener, 8), 0);
  setenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/run/silent-bus", 1);
  onIdleBusWait = [](auto asked) { return asked; };
  const auto start = Clock::now();

  EXPECT_EQ(device_power_lock_state(2, kLong), -ETIMEDOUT);

  EXPECT_LT(Clock::now() - start, std::chrono::seconds(30));
  EXPECT_THAT(logged(), SizeIs(1));
  close(listener);
}

// What the error is depends on how far the greeting came.
TEST_F(DevicePower, DoesNotWaitForABusThatHungUp) {
  const int listener = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_un address = {AF_UNIX, "/run/curt-bus"};
  ASSERT_EQ(bind(listener, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
  ASSERT_EQ(listen(listener, 8), 0);
  setenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/run/curt-bus", 1);
  const ChildProcess curt([&] { return close(accept(listener, nullptr, nullptr)); });

  EXPECT_LT(device_power_lock_state(2, kLong), 0);

  EXPECT_THAT(logged(), SizeIs(1));
  close(listener);
}

TEST_F(DevicePower, TakesTheKernelsWakeLockWithoutLogind) {
  giveKernelWakeLocks();

  ASSERT_EQ(device_power_lock_state(2, 105000), 0);
  const std::string locked = readFile("/sys/power/wake_lock");
  const std::string before = readFile("/sys/power/wake_unlock");
  ASSERT_EQ(device_power_unlock_state(2), 0);

  EXPECT_THAT(locked, MatchesRegex("fw-update-control-[0-9]+-[0-9]+ 105000000000"));
  EXPECT_EQ(before, "");
  EXPECT_EQ(readFile("/sys/power/wake_unlock"), locked.substr(0, locked.find(' ')));
  EXPECT_THAT(logged(), IsEmpty());
}

TEST_F(DevicePower, GivesEachWakeLockANameOfItsOwn) {
  giveKernelWakeLocks();

  ASSERT_EQ(device_power_lock_state(2, 105000), 0);
  const std::string first = readFile("/sys/power/wake_lock");
  ASSERT_EQ(device_power_lock_state(2, 105000), 0);

  EXPECT_NE(readFile("/sys/power/wake_lock"), first);
}

TEST_F(DevicePower, TakesABusThatNobodyServesForNone) {
  const int nobody = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_un address = {AF_UNIX, "/run/left-bus"};
  ASSERT_EQ(bind(nobody, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
  setenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/run/left-bus", 1);

  EXPECT_EQ(device_power_lock_state(2, kLong), -ENOSYS);

  close(nobody);
}

TEST_F(DevicePower, FailsAndSaysSoOnceWithoutLogindAndWithoutWakeLocks) {
  EXPECT_EQ(device_power_lock_state(2, kLong), -ENOSYS);
  EXPECT_EQ(device_power_unlock_state(2), -ENOENT);

  EXPECT_THAT(logged(), ElementsAre("5 FWUPDATE device power: state 2 is not held (logind: No such file or "
                                    "directory; kernel wake lock: No such file or directory)"));
}

}  // namespace
