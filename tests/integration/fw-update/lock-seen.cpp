// SPDX-License-Identifier: Apache-2.0
// The update lock's file, and who uses it, looked at from within one process: what the command
// only shows in part.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <linux/futex.h>
#include <pthread.h>
#include <semaphore.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <filesystem>
#include <functional>
#include <sstream>
#include <thread>

#include "child-process.h"
#include "device-environment.h"
#include "lock/lock-users.h"
#include "lock/update-lock.h"

namespace {

using tool::LockRole;
using tool::LockUser;
using tool::UpdateLock;

constexpr const char* kPath = "/dev/shm/sem.SEM_UPDATE_CONTROL";

// With the value 1, as the library makes it.
void makeLock() {
  sem_close(sem_open("/SEM_UPDATE_CONTROL", O_CREAT, 0600, 1));
}

sem_t* useLock() {
  return sem_open("/SEM_UPDATE_CONTROL", 0);
}

[[noreturn]] void stay() {
  while (true) {
    pause();
  }
}

// The one user of the lock, once it is as wanted.
LockUser userOnce(const std::function<bool(const LockUser&)>& wanted) {
  const UpdateLock lock;
  while (true) {
    const auto users = tool::findLockUsers(lock).users;
    if (users.size() == 1 && wanted(users[0])) {
      return users[0];
    }
  }
}

LockUser userOnce(LockRole role, std::size_t waiting = 0) {
  return userOnce([=](const LockUser& user) { return user.role == role && user.waitingThreads == waiting; });
}

// Field 22 of its "stat", behind the name.
unsigned long long startOf(pid_t process) {
  const std::string line = DeviceTest::readFile("/proc/" + std::to_string(process) + "/stat");
  std::istringstream words(line.substr(line.rfind(')') + 2));
  std::string word;
  for (int field = 3; field <= 22; ++field) {
    words >> word;
  }
  return std::stoull(word);
}

class LockSeen : public DeviceTest {
 protected:
  void SetUp() override {
    DeviceTest::SetUp();
    makeLock();
  }
};

// ---- The file -----------------------------------------------------------------

TEST_F(LockSeen, IsTheSemaphoresFile) {
  UpdateLock lock;

  EXPECT_EQ(UpdateLock::path(), kPath);
  ASSERT_EQ(lock.error(), 0);
  EXPECT_EQ(lock.value(), 1);
  lock.giveBack();
  EXPECT_EQ(lock.value(), 2);
}

TEST_F(LockSeen, IsNoFileThatIsMissingOrTooShortForOne) {
  const auto errorWithSize = [](std::size_t size) {
    DeviceTest::writeFile(kPath, std::string(size, '\0'));
    return UpdateLock().error();
  };

  EXPECT_EQ(errorWithSize(sizeof(sem_t)), 0);
  EXPECT_EQ(errorWithSize(sizeof(sem_t) - 1), EINVAL);
  std::filesystem::remove(kPath);
  EXPECT_EQ(UpdateLock().error(), ENOENT);
  std::filesystem::create_directory(kPath);
  EXPECT_NE(UpdateLock().error(), 0);
}

TEST_F(LockSeen, IsUnmappedInTheEnd) {
  const void* address = nullptr;
  {
    const UpdateLock lock;
    address = lock.mapping();
    ASSERT_NE(address, nullptr);
  }

  unsigned char isThere = 0;
  EXPECT_EQ(mincore(const_cast<void*>(address), 1, &isThere), -1);
}

// ---- The kernel's word --------------------------------------------------------

TEST_F(LockSeen, IsUsedByNobodyElse) {
  const UpdateLock lock;
  {
    const tool::SoleUse use(lock);

    EXPECT_TRUE(use.granted());
    EXPECT_FALSE(use.refused());
    EXPECT_EQ(fcntl(lock.descriptor(), F_GETLEASE), F_WRLCK);
  }
  EXPECT_EQ(fcntl(lock.descriptor(), F_GETLEASE), F_UNLCK) << "an open would wait for it";
}

TEST_F(LockSeen, IsUsedBySomebodyElse) {
  const UpdateLock lock;
  sem_t* const other = useLock();

  const tool::SoleUse use(lock);

  EXPECT_FALSE(use.granted());
  EXPECT_TRUE(use.refused());
  sem_close(other);
}

// One mapping more than there was would count as somebody else's use from then on.
TEST_F(LockSeen, LeavesNoUseOfItsOwnBehindByAsking) {
  const UpdateLock lock;
  { const tool::SoleUse first(lock); }

  const tool::SoleUse second(lock);

  EXPECT_TRUE(second.granted());
}

void takeSignal(int) {}

TEST_F(LockSeen, GivesTheSignalOfTheLeaseBackAsItWas) {
  const UpdateLock lock;
  std::signal(SIGIO, takeSignal);
  struct sigaction during {
  }, after{};

  {
    const tool::SoleUse use(lock);
    sigaction(SIGIO, nullptr, &during);
  }
  sigaction(SIGIO, nullptr, &after);
  std::signal(SIGIO, SIG_DFL);

  EXPECT_EQ(during.sa_handler, SIG_IGN);
  EXPECT_EQ(after.sa_handler, &takeSignal);
}

TEST_F(LockSeen, TellsWhetherSomebodyOpenedIt) {
  const UpdateLock lock;
  const tool::OpenWatch watch(lock);

  ASSERT_TRUE(watch.works());
  EXPECT_TRUE(watch.nobodyOpened());
  sem_close(useLock());
  EXPECT_FALSE(watch.nobodyOpened());
}

// ---- Its users ----------------------------------------------------------------

TEST_F(LockSeen, LeavesThisProcessOut) {
  sem_t* const own = useLock();
  const UpdateLock lock;

  EXPECT_EQ(tool::findLockUsers(lock).users.size(), 0u);

  sem_close(own);
}

TEST_F(LockSeen, IsUsedByAProcessWithItsStartAndItsUser) {
  const ChildProcess child([]() -> int {
    useLock();
    stay();
  });

  const LockUser user = userOnce(LockRole::MayHold);

  EXPECT_EQ(user.process, child.id());
  EXPECT_EQ(user.started, startOf(child.id()));
  EXPECT_EQ(user.user, "root");
  EXPECT_THAT(user.command, ::testing::HasSubstr("test-update-lock"));
  EXPECT_EQ(user.command.find('\0'), std::string::npos);
}

TEST_F(LockSeen, IsOnlyOpenInAProcessThatHasItNotMapped) {
  const ChildProcess child([]() -> int {
    open(kPath, O_RDWR);
    stay();
  });

  EXPECT_EQ(userOnce(LockRole::HasOpen).process, child.id());
}

TEST_F(LockSeen, IsNotAnotherFileOfItsNameNorAnotherSemaphore) {
  writeFile("/tmp/sem.SEM_UPDATE_CONTROL", "other");
  std::atomic<bool>* const isReady = static_cast<std::atomic<bool>*>(
      mmap(nullptr, sizeof(std::atomic<bool>), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
  const ChildProcess child([isReady]() -> int {
    open("/tmp/sem.SEM_UPDATE_CONTROL", O_RDWR);
    sem_open("/OTHER", O_CREAT, 0600, 1);
    *isReady = true;
    stay();
  });
  while (!*isReady) {
    sched_yield();
  }

  const UpdateLock lock;
  EXPECT_EQ(tool::findLockUsers(lock).users.size(), 0u);
  munmap(isReady, sizeof *isReady);
}

// This program requests one update at a time: one thread that waits is enough.
TEST_F(LockSeen, IsWaitedForByAProcessOfThisProgramThatWaitsWithOneOfItsThreads) {
  sem_wait(useLock());
  const ChildProcess child([]() -> int {
    sem_t* const lock = useLock();
    std::thread([] { stay(); }).detach();
    sem_wait(lock);
    return 0;
  });

  EXPECT_EQ(userOnce(LockRole::Waits, 1).process, child.id());
}

// Whether a process is in a call of futex, of whatever width.
bool isInFutex(pid_t process) {
  const std::string call = DeviceTest::readFile("/proc/" + std::to_string(process) + "/syscall");
  return call.rfind("202 ", 0) == 0 || call.rfind("240 ", 0) == 0 || call.rfind("422 ", 0) == 0;
}

TEST_F(LockSeen, IsNotWaitedForByAProcessThatWaitsForSomethingElse) {
  const ChildProcess child([]() -> int {
    useLock();
    sem_t* const other = sem_open("/OTHER", O_CREAT, 0600, 0);
    sem_wait(other);
    return 0;
  });

  const LockUser user = userOnce([&child](const LockUser&) { return isInFutex(child.id()); });

  EXPECT_EQ(user.role, LockRole::MayHold);
  EXPECT_EQ(user.waitingThreads, 0u);
}

// This C library waits with a set of bits, others do without.
TEST_F(LockSeen, IsWaitedForByAProcessWhoseCLibraryWaitsInAnotherWay) {
  sem_wait(useLock());
  const ChildProcess child([]() -> int {
    sem_t* const lock = useLock();
    return static_cast<int>(syscall(SYS_futex, lock, FUTEX_WAIT, 0, nullptr, nullptr, 0));
  });
  userOnce([&child](const LockUser&) { return isInFutex(child.id()); });

  const LockUser user = userOnce([](const LockUser&) { return true; });

  EXPECT_EQ(user.role, LockRole::Waits);
  EXPECT_EQ(user.waitingThreads, 1u);
}

TEST_F(LockSeen, HasItsUsersInTheOrderOfTheirNumbers) {
  const ChildProcess first([]() -> int {
    useLock();
    stay();
  });
  const ChildProcess second([]() -> int {
    useLock();
    stay();
  });
  const UpdateLock lock;
  tool::LockUsers found = tool::findLockUsers(lock);
  while (found.users.size() < 2) {
    found = tool::findLockUsers(lock);
  }

  EXPECT_LT(found.users[0].process, found.users[1].process);
  EXPECT_TRUE(found.allProcesses);
  EXPECT_TRUE(found.has(LockRole::MayHold));
  EXPECT_FALSE(found.has(LockRole::Waits));
}

}  // namespace
