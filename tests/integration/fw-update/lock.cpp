// SPDX-License-Identifier: Apache-2.0
// The command's look at the update lock, and its recovery after an updater that died.
#include <fcntl.h>
#include <linux/capability.h>
#include <sched.h>
#include <semaphore.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <filesystem>
#include <list>
#include <map>
#include <memory>
#include <sstream>
#include <system_error>
#include <thread>

#include "child-process.h"
#include "thoroughness.h"
#include "tool-test.h"

namespace {

using ::testing::AllOf;
using ::testing::Contains;
using ::testing::HasSubstr;
using ::testing::Not;
using thoroughness::kEveryNth;

constexpr const char* kJournal = "/var/lib/fw-components/journal.log";
constexpr const char* kStalled = "stall_at_percent = 40";

sem_t* openLock() {
  return sem_open("/SEM_UPDATE_CONTROL", O_CREAT, 0600, 1);
}

// Waits for the lock as the library does, and never gives it back.
int takeForEver() {
  sem_wait(openLock());
  while (true) {
    pause();
  }
}

// This process, and programs that it becomes, may not look at others with more rights.
void giveUpTracing() {
  __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
  __user_cap_data_struct rights[_LINUX_CAPABILITY_U32S_3];
  syscall(SYS_capget, &header, rights);
  for (const unsigned int right : {0U + CAP_SYS_PTRACE, 0U + CAP_SYS_ADMIN, 0U + CAP_PERFMON}) {
    __user_cap_data_struct& word = rights[right / 32];
    for (__u32* set : {&word.effective, &word.permitted, &word.inheritable}) {
      *set &= ~(1U << right % 32);
    }
    prctl(PR_CAPBSET_DROP, right);
  }
  if (syscall(SYS_capset, &header, rights) != 0) {
    throw std::system_error(errno, std::generic_category(), "capset");
  }
}

// A /proc with this process alone, as it is shown to users who may not see others.
void seeOnlyOneself() {
  const std::string self = std::to_string(getpid());
  if (unshare(CLONE_NEWNS) != 0 || mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
      mount("none", "/opt/media", "tmpfs", 0, nullptr) != 0) {
    throw std::system_error(errno, std::generic_category(), "mount namespace");
  }
  DeviceTest::writeFile("/opt/media/1/stat", "");
  std::filesystem::create_directory("/opt/media/" + self);
  std::filesystem::create_directory_symlink(self, "/opt/media/self");
  if (mount(("/proc/" + self).c_str(), ("/opt/media/" + self).c_str(), nullptr, MS_BIND, nullptr) != 0 ||
      mount("/opt/media", "/proc", nullptr, MS_BIND | MS_REC, nullptr) != 0) {
    throw std::system_error(errno, std::generic_category(), "own /proc");
  }
}

// Runs the command after the change of its process.
Json::Value documentOf(const std::vector<std::string>& arguments, void (*change)()) {
  runInChild([&] {
    const int out = open("/tmp/document", O_WRONLY | O_CREAT | O_TRUNC, 0644);
    dup2(out, STDOUT_FILENO);
    change();
    std::vector<char*> words{const_cast<char*>("fw-update"), const_cast<char*>("--json")};
    for (const std::string& argument : arguments) {
      words.push_back(const_cast<char*>(argument.c_str()));
    }
    words.push_back(nullptr);
    return execv(TESTED_TOOL, words.data());
  });
  Json::Value document;
  std::istringstream(DeviceTest::readFile("/tmp/document")) >> document;
  return document;
}

// A /proc without processes. It has what a sanitizer in the command looks up there: the
// program, and its options. Leaks are not looked for, since that takes a whole /proc.
class ProcWithoutProcesses {
 public:
  ProcWithoutProcesses() {
    if (mount("none", "/proc", "tmpfs", 0, nullptr) != 0) {
      throw std::system_error(errno, std::generic_category(), "own /proc");
    }
    std::filesystem::create_directory("/proc/self");
    std::filesystem::create_symlink(TESTED_TOOL, "/proc/self/exe");
    DeviceTest::writeFile("/proc/self/environ",
                          std::string("ASAN_OPTIONS=verify_asan_link_order=0:detect_leaks=0") + '\0');
  }
  ProcWithoutProcesses(const ProcWithoutProcesses&) = delete;
  ProcWithoutProcesses& operator=(const ProcWithoutProcesses&) = delete;
  ~ProcWithoutProcesses() { umount("/proc"); }
};

class TheUpdateLock : public ToolTest {
 protected:
  static Json::Value status() { return document({"lock", "status"}); }
  static Json::Value recover() { return document({"lock", "recover"}); }
  static Json::Value withoutProc(Json::Value (*command)()) {
    const ProcWithoutProcesses proc;
    return command();
  }

  // The roles of the processes that use the lock, by process.
  static std::map<pid_t, std::string> roles() {
    const Json::Value whole = status();
    std::map<pid_t, std::string> found;
    for (const Json::Value& process : whole["processes"]) {
      found[process["pid"].asInt()] = process["role"].asString();
    }
    return found;
  }

  static void waitForRoles(const std::map<pid_t, std::string>& wanted) {
    while (roles() != wanted) {
    }
  }

  // A process that took the lock and died.
  static void leaveTaken() {
    ChildProcess holder(takeForEver);
    waitForRoles({{holder.id(), "may-hold"}});
  }

  // Not kept open: the test would count as a user.
  static int value() {
    sem_t* const lock = openLock();
    int value = -1;
    sem_getvalue(lock, &value);
    sem_close(lock);
    return value;
  }
};

class TheUpdateLockOfModules : public TheUpdateLock {
 protected:
  void SetUp() override {
    ToolTest::SetUp();
    installModule("libtuner");
    installModule("libpanel");
    installModule("libwifi");
    for (const char* firmware : {"tunerfw", "panelfw", "wififw"}) {
      installImage(firmware);
    }
  }

  static std::unique_ptr<RunningTool> stalledUpdate() {
    describeComponent("tunerfw", kStalled);
    auto update = std::make_unique<RunningTool>(
        std::vector<std::string>{"update", "libtuner", "--progress", "ndjson"}, Launch{});
    update->waitFor("\"percent\":4");
    describeComponent("tunerfw", "");
    return update;
  }
};

TEST_F(TheUpdateLock, IsAbsentBeforeTheFirstUpdate) {
  EXPECT_EQ(status()["state"].asString(), "absent");
  EXPECT_EQ(status()["exitCode"].asInt(), 0);

  EXPECT_EQ(recover()["outcome"].asString(), "nothing-to-do");
  EXPECT_FALSE(exists(kLock)) << "looking must not create it";
}

TEST_F(TheUpdateLockOfModules, IsFreeAfterAnUpdate) {
  run({"update", "libtuner"});

  const Json::Value found = status();

  EXPECT_EQ(found["state"].asString(), "free");
  EXPECT_EQ(found["value"].asInt(), 1);
  EXPECT_TRUE(found["processes"].empty());
}

TEST_F(TheUpdateLockOfModules, IsLeftAloneWhenItIsFree) {
  run({"update", "libtuner"});

  const Json::Value recovered = recover();

  EXPECT_EQ(recovered["exitCode"].asInt(), 3);
  EXPECT_EQ(value(), 1);
}

TEST_F(TheUpdateLockOfModules, IsLeftToALivingHolderWhomItNames) {
  const auto update = stalledUpdate();

  const Json::Value found = status();
  const Json::Value recovered = recover();

  ASSERT_EQ(found["processes"].size(), 1u);
  EXPECT_EQ(found["state"].asString(), "taken");
  EXPECT_EQ(found["processes"][0]["role"].asString(), "may-hold");
  EXPECT_EQ(found["processes"][0]["command"].asString(), "fw-update update libtuner --progress ndjson");
  EXPECT_EQ(found["processes"][0]["user"].asString(), "root");
  EXPECT_EQ(recovered["exitCode"].asInt(), 12);
  EXPECT_EQ(recovered["outcome"].asString(), "lock-in-use");
  EXPECT_THAT(
      recovered["message"].asString(),
      HasSubstr(std::to_string(found["processes"][0]["pid"].asInt()) + " (fw-update update libtuner"));
  EXPECT_EQ(value(), 0);
}

TEST_F(TheUpdateLockOfModules, IsGivenBackAfterItsHolderWasKilled) {
  const auto update = stalledUpdate();
  update->kill(SIGKILL);
  update->finish();
  ASSERT_EQ(status()["state"].asString(), "stuck");

  EXPECT_EQ(recover()["exitCode"].asInt(), 0);

  EXPECT_EQ(value(), 1);
  EXPECT_EQ(run({"update", "libtuner"}).exitCode, 0);
}

TEST_F(TheUpdateLockOfModules, GoesToOneWaiterAfterTheOther) {
  const auto update = stalledUpdate();
  std::list<RunningTool> waiters;
  for (const char* module : {"libtuner", "libpanel", "libwifi"}) {
    waiters.emplace_back(std::vector<std::string>{"update", module, "--progress", "ndjson"}, Launch{});
    waiters.back().waitFor("\"event\":\"waiting\"");
  }
  update->kill(SIGKILL);
  update->finish();
  const Json::Value found = status();
  EXPECT_EQ(found["state"].asString(), "stuck");
  EXPECT_THAT(found["message"].asString(), HasSubstr("3 processes wait for it"));

  EXPECT_EQ(recover()["exitCode"].asInt(), 0);

  for (RunningTool& waiter : waiters) {
    EXPECT_EQ(waiter.finish(), 0) << waiter.err();
  }
  EXPECT_EQ(value(), 1);
  std::istringstream journal(readFile(kJournal));
  std::string time, pid, component, event, rest, running;
  std::getline(journal, rest);  // the start of the update that was killed
  while (journal >> time >> pid >> component >> event && std::getline(journal, rest)) {
    EXPECT_EQ(event, running.empty() ? "start" : "finish");
    EXPECT_TRUE(running.empty() || running == component) << "two at once";
    running = event == "start" ? component : "";
  }
}

// How many of them gave it back.
int recoverEightTimesAtOnce() {
  std::list<RunningTool> recoveries;
  for (int i = 0; i < 8; ++i) {
    recoveries.emplace_back(std::vector<std::string>{"lock", "recover"}, Launch{});
  }
  int given = 0;
  for (RunningTool& recovery : recoveries) {
    given += recovery.finish() == 0 ? 1 : 0;
  }
  return given;
}

// With others waiting, /proc decides.
TEST_F(TheUpdateLock, IsGivenBackOnceByManyRecoveriesAtOnce) {
  leaveTaken();
  const ChildProcess first(takeForEver);
  const ChildProcess second(takeForEver);
  waitForRoles({{first.id(), "waits"}, {second.id(), "waits"}});

  EXPECT_EQ(recoverEightTimesAtOnce(), 1);
  for (int tries = 0; value() != 0 && tries < 10000; ++tries) {
    usleep(1000);  // the one that is woken takes it once it comes to run
  }
  EXPECT_EQ(value(), 0);
  const auto found = roles();
  EXPECT_THAT(found, Contains(::testing::Pair(::testing::_, "may-hold")).Times(1)) << "the one that took it";
  EXPECT_THAT(found, Contains(::testing::Pair(::testing::_, "waits")).Times(1));
}

// With nobody else there, the kernel's lease decides.
TEST_F(TheUpdateLock, IsNeverGivenBackTwice) {
  leaveTaken();

  EXPECT_EQ(recoverEightTimesAtOnce(), 1);
  EXPECT_EQ(value(), 1);
}

TEST_F(TheUpdateLock, IsLeftToAProcessThatWaitsWithOneThreadAndMayHoldItWithAnother) {
  const ChildProcess both([] {
    sem_wait(openLock());
    std::thread waiting([] { sem_wait(openLock()); });
    waiting.join();
    return 0;
  });
  waitForRoles({{both.id(), "may-hold"}});

  EXPECT_EQ(recover()["exitCode"].asInt(), 12);
}

TEST_F(TheUpdateLock, IsLeftToAHolderWhoseFirstThreadHasEnded) {
  const ChildProcess holder([] {
    sem_wait(openLock());
    std::thread(pause).detach();
    syscall(SYS_exit, 0);  // of this thread alone
    return 0;
  });
  waitForRoles({{holder.id(), "may-hold"}});
  while (readFile("/proc/" + std::to_string(holder.id()) + "/stat").find(") Z") == std::string::npos) {
  }

  EXPECT_EQ(roles(), (std::map<pid_t, std::string>{{holder.id(), "may-hold"}}));
  EXPECT_EQ(recover()["exitCode"].asInt(), 12);
}

// Nor is it taken for one that has ended when it may not be looked at.
TEST_F(TheUpdateLock, CountsAHiddenProcessWhoseFirstThreadHasEnded) {
  leaveTaken();
  const ChildProcess hidden([] {
    std::thread(pause).detach();
    syscall(SYS_exit, 0);  // of this thread alone
    return 0;
  });
  while (readFile("/proc/" + std::to_string(hidden.id()) + "/stat").find(") Z") == std::string::npos) {
  }

  const Json::Value found = documentOf({"lock", "status"}, giveUpTracing)["hiddenProcesses"];

  EXPECT_EQ(std::count(found.begin(), found.end(), Json::Value(hidden.id())), 1);
}

// What a module starts may outlive the updater and go on writing.
TEST_F(TheUpdateLock, IsLeftToAForkOfTheHolder) {
  auto* const fork_id = static_cast<std::atomic<pid_t>*>(
      mmap(nullptr, sizeof(std::atomic<pid_t>), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
  {
    const ChildProcess holder([fork_id] {
      sem_wait(openLock());
      const pid_t id = fork();
      if (id == 0) {
        pause();
      }
      *fork_id = id;
      return takeForEver();
    });
    while (*fork_id == 0) {
      sched_yield();
    }
  }

  const Json::Value recovered = recover();

  EXPECT_EQ(recovered["exitCode"].asInt(), 12);
  EXPECT_THAT(recovered["message"].asString(), HasSubstr("held by " + std::to_string(*fork_id)));
  kill(*fork_id, SIGKILL);
  while (recover()["exitCode"].asInt() == 12) {  // until it has ended
  }
  EXPECT_EQ(value(), 1);
  munmap(fork_id, sizeof *fork_id);
}

TEST_F(TheUpdateLock, IsTakenAndGivenBackByItsUsersWhileRecoveriesAreTried) {
  struct Shared {
    std::atomic<int> inside{0};
    std::atomic<int> overlaps{0};
    std::atomic<bool> stop{false};
  };
  void* const memory =
      mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  auto* const shared = new (memory) Shared;
  std::list<ChildProcess> users;
  for (int i = 0; i < 4; ++i) {
    users.emplace_back([shared] {
      while (!shared->stop) {
        sem_t* const lock = openLock();
        sem_wait(lock);
        shared->overlaps += shared->inside++ == 0 ? 0 : 1;
        sched_yield();
        --shared->inside;
        sem_post(lock);
      }
      return 0;
    });
  }

  for (int i = 0; i < 10; i += kEveryNth) {
    EXPECT_NE(run({"lock", "recover"}).exitCode, 0) << "nothing was left taken";
  }

  shared->stop = true;
  for (ChildProcess& user : users) {
    EXPECT_EQ(user.wait(), 0);
  }
  EXPECT_EQ(shared->overlaps, 0);
  EXPECT_EQ(value(), 1);
  munmap(memory, sizeof(Shared));
}

TEST_F(TheUpdateLock, IsLeftToAProcessThatCannotBeSeen) {
  const ChildProcess holder(takeForEver);
  waitForRoles({{holder.id(), "may-hold"}});

  const Json::Value recovered = documentOf({"lock", "recover", "--ignore-hidden"}, seeOnlyOneself);

  EXPECT_EQ(recovered["exitCode"].asInt(), 12) << "the kernel says that somebody uses it";
  EXPECT_THAT(recovered["message"].asString(), HasSubstr("held by a process that cannot be seen"));
  EXPECT_EQ(value(), 0);
}

TEST_F(TheUpdateLock, IsGivenBackWhenTheKernelSaysThatNobodyUsesItWhoeverIsSeen) {
  leaveTaken();

  EXPECT_EQ(documentOf({"lock", "recover"}, seeOnlyOneself)["exitCode"].asInt(), 0);

  EXPECT_EQ(value(), 1);
}

TEST_F(TheUpdateLock, IsGivenBackBesideHiddenProcessesOnlyOnTheCallersWord) {
  leaveTaken();
  const ChildProcess waiter([] {
    giveUpTracing();
    return takeForEver();
  });
  waitForRoles({{waiter.id(), "waits"}});
  prctl(PR_SET_DUMPABLE, 0);  // hides the test, which could use the lock

  const Json::Value found = documentOf({"lock", "status"}, giveUpTracing);
  const Json::Value refused = documentOf({"lock", "recover"}, giveUpTracing);
  const Json::Value ignoring = documentOf({"lock", "recover", "--ignore-hidden"}, giveUpTracing);

  EXPECT_EQ(found["state"].asString(), "taken");
  EXPECT_THAT(found["blindSpot"].asString(), HasSubstr("cannot be looked at"));
  const Json::Value& hidden = found["hiddenProcesses"];
  EXPECT_EQ(std::count(hidden.begin(), hidden.end(), Json::Value(getpid())), 1);
  EXPECT_EQ(refused["exitCode"].asInt(), 12);
  EXPECT_EQ(ignoring["exitCode"].asInt(), 0);
  waitForRoles({{waiter.id(), "may-hold"}});
  prctl(PR_SET_DUMPABLE, 1);
}

TEST_F(TheUpdateLock, IsTakenAsFarAsCanBeSeenWhenNotAllProcessesCan) {
  leaveTaken();

  const Json::Value found = withoutProc(status);

  EXPECT_EQ(found["state"].asString(), "taken");
  EXPECT_THAT(found["message"].asString(), HasSubstr("by no process that can be seen"));
  EXPECT_THAT(found["blindSpot"].asString(), HasSubstr("/proc does not show all"));
}

TEST_F(TheUpdateLock, IsNotGivenBackWithoutProc) {
  leaveTaken();

  const Json::Value recovered = withoutProc(recover);

  EXPECT_EQ(recovered["exitCode"].asInt(), 12);
  EXPECT_EQ(value(), 0);
}

// There the kernel gives a lease although the file is mapped.
TEST_F(TheUpdateLock, IsLeftToItsHolderOnAnOverlay) {
  for (const char* directory : {"/tmp/lower", "/tmp/upper", "/tmp/work"}) {
    ASSERT_EQ(mkdir(directory, 0755), 0);
  }
  ASSERT_EQ(mount("overlay", "/dev/shm", "overlay", 0,
                  "lowerdir=/tmp/lower,upperdir=/tmp/upper,workdir=/tmp/work,userxattr"),
            0);
  {
    const ChildProcess holder(takeForEver);
    waitForRoles({{holder.id(), "may-hold"}});

    EXPECT_EQ(recover()["exitCode"].asInt(), 12);
    EXPECT_EQ(value(), 0);
  }
  EXPECT_EQ(recover()["exitCode"].asInt(), 0);

  EXPECT_EQ(value(), 1);
  umount("/dev/shm");
}

TEST_F(TheUpdateLock, IsNotTheOneOfThatNameThatWasRemoved) {
  const ChildProcess holder(takeForEver);
  waitForRoles({{holder.id(), "may-hold"}});
  sem_unlink("/SEM_UPDATE_CONTROL");
  leaveTaken();

  EXPECT_EQ(status()["state"].asString(), "stuck");
  EXPECT_EQ(recover()["exitCode"].asInt(), 0);

  EXPECT_EQ(value(), 1);
}

TEST_F(TheUpdateLock, IsNotTouchedWithoutPermission) {
  leaveTaken();
  ASSERT_EQ(chmod(kLock, 0), 0);
  const Launch bound{{}, false};

  EXPECT_EQ(document({"lock", "status"}, bound)["exitCode"].asInt(), 8);
  EXPECT_EQ(document({"lock", "recover"}, bound)["exitCode"].asInt(), 8);

  ASSERT_EQ(chmod(kLock, 0600), 0);
  EXPECT_EQ(value(), 0);
}

TEST_F(TheUpdateLock, IsNotWhatElseStandsInItsPlace) {
  writeFile(kLock, "short");

  EXPECT_EQ(status()["outcome"].asString(), "unexpected-error");
  EXPECT_EQ(recover()["outcome"].asString(), "unexpected-error");
  EXPECT_EQ(readFile(kLock), "short");
}

TEST_F(TheUpdateLock, IsBrokenWhenItWasGivenBackTooOften) {
  sem_t* const lock = openLock();
  sem_post(lock);
  sem_close(lock);

  const Json::Value found = status();

  EXPECT_EQ(found["state"].asString(), "broken");
  EXPECT_THAT(found["message"].asString(), HasSubstr("2 updates"));
  EXPECT_EQ(recover()["exitCode"].asInt(), 3);
  EXPECT_EQ(value(), 2);
}

TEST_F(TheUpdateLock, IsShownToPeople) {
  leaveTaken();
  const ChildProcess waiter(takeForEver);
  waitForRoles({{waiter.id(), "waits"}});

  const Ended stuck = run({"lock", "status"});
  const Ended recovered = run({"lock", "recover"});
  const Ended taken = run({"lock", "status"});
  const Ended refused = run({"lock", "recover"});

  const std::string row = std::to_string(waiter.id());
  EXPECT_THAT(stuck.out, AllOf(HasSubstr("The update lock is stuck"), HasSubstr("fw-update lock recover"),
                               HasSubstr("waits for it"), HasSubstr("\n" + row)));
  EXPECT_EQ(recovered.out, "The update lock was given back.\n");
  EXPECT_THAT(taken.out, AllOf(HasSubstr("1 process may hold it."), Not(HasSubstr("waits"))));
  EXPECT_EQ(refused.exitCode, 12);
  EXPECT_THAT(refused.out, HasSubstr(row));
  EXPECT_THAT(refused.err, HasSubstr("The update lock was not given back."));
}

// ---- Other recoveries ----------------------------------------------------------

constexpr const char* kRecoveryLock = "/run/fw-update/recovery.lock";

// Holds a file or directory as another recovery would.
class Locked {
 public:
  explicit Locked(const char* path, int flags) : file_(open(path, flags | O_CLOEXEC, 0600)) {
    if (flock(file_, LOCK_EX | LOCK_NB) != 0) {
      throw std::system_error(errno, std::generic_category(), path);
    }
  }
  Locked(const Locked&) = delete;
  Locked& operator=(const Locked&) = delete;
  ~Locked() { close(file_); }

 private:
  const int file_;
};

char stateOf(pid_t process) {
  const std::string line = DeviceTest::readFile("/proc/" + std::to_string(process) + "/stat");
  return line.at(line.rfind(')') + 2);
}

Launch racing(const std::string& how) {
  return {{"LD_PRELOAD=" LOCK_RACER, "LOCK_RACE=" + how}};
}

// Every user may open the directory of semaphores, and so lock it.
TEST_F(TheUpdateLock, IsGivenBackAlthoughSomebodyLocksWhatEverybodyCanOpen) {
  leaveTaken();
  const Locked attack("/dev/shm", O_RDONLY | O_DIRECTORY);

  const Json::Value recovered = document({"lock", "recover"}, racing("hurry"));

  EXPECT_EQ(recovered["exitCode"].asInt(), 0) << recovered["message"].asString();
  EXPECT_EQ(value(), 1);
}

TEST_F(TheUpdateLock, KeepsOtherUsersFromTheFileThatRecoveriesLock) {
  leaveTaken();
  writeFile(kRecoveryLock, "");
  ASSERT_EQ(chmod(kRecoveryLock, 0666), 0);

  recover();

  struct stat status {};
  ASSERT_EQ(stat(kRecoveryLock, &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0600u);
}

TEST_F(TheUpdateLock, IsNotGivenBackBesideARecoveryThatDoesNotEnd) {
  leaveTaken();
  writeFile(kRecoveryLock, "");
  const Locked other(kRecoveryLock, O_RDWR);

  const Json::Value recovered = document({"lock", "recover"}, racing("hurry"));

  EXPECT_EQ(recovered["outcome"].asString(), "already-running");
  EXPECT_EQ(value(), 0);
}

// Where somebody else may write to the run directory, the directory of semaphores serves.
TEST_F(TheUpdateLock, IsNotGivenBackBesideARecoveryThatMayNotUseTheRunDirectory) {
  leaveTaken();
  std::filesystem::create_directories("/run/fw-update");
  ASSERT_EQ(chmod("/run/fw-update", 0777), 0);
  const Locked other("/dev/shm", O_RDONLY | O_DIRECTORY);

  const Json::Value recovered = document({"lock", "recover"}, racing("hurry"));

  EXPECT_EQ(recovered["outcome"].asString(), "already-running");
  EXPECT_EQ(value(), 0);
}

// ---- Races ----------------------------------------------------------------------

TEST_F(TheUpdateLock, IsNotGivenBackTwiceWhenItsHolderDoesSoBeforeTheKernelIsAsked) {
  leaveTaken();

  EXPECT_EQ(document({"lock", "recover"}, racing("post-before-lease"))["exitCode"].asInt(), 3);

  EXPECT_EQ(value(), 1);
}

TEST_F(TheUpdateLock, IsNotGivenBackTwiceWhenItsHolderDoesSoBeforeItsUsersAreLookedFor) {
  leaveTaken();

  EXPECT_EQ(document({"lock", "recover", "--ignore-hidden"}, racing("post-before-watch"))["exitCode"].asInt(),
            3);

  EXPECT_EQ(value(), 1);
}

TEST_F(TheUpdateLock, IsNotGivenBackWhileProcessesComeAndOpenIt) {
  leaveTaken();

  EXPECT_EQ(
      document({"lock", "recover", "--ignore-hidden"}, racing("open-while-looking"))["exitCode"].asInt(), 12);

  EXPECT_EQ(value(), 0);
}

TEST_F(TheUpdateLock, IsNotLookedForBehindALink) {
  leaveTaken();
  std::filesystem::rename(kLock, "/dev/shm/elsewhere");
  std::filesystem::create_symlink("/dev/shm/elsewhere", kLock);

  EXPECT_EQ(recover()["outcome"].asString(), "unexpected-error");

  std::filesystem::rename("/dev/shm/elsewhere", kLock);
  EXPECT_EQ(value(), 0);
}

TEST_F(TheUpdateLock, DoesNotCountAsHiddenWhoEndsWhileBeingLookedAt) {
  leaveTaken();
  const ChildProcess bystander(pause);
  Launch launch = racing("end-while-looking");
  launch.environment.push_back("LOCK_RACE_PROCESS=" + std::to_string(bystander.id()));

  const Json::Value found = document({"lock", "status"}, launch);

  EXPECT_EQ(stateOf(bystander.id()), 'Z') << "it was looked at";
  const Json::Value& hidden = found["hiddenProcesses"];
  EXPECT_EQ(std::count(hidden.begin(), hidden.end(), Json::Value(bystander.id())), 0);
}

}  // namespace
