// SPDX-License-Identifier: Apache-2.0
// The guarded update of one module: lock, worker thread, time limit.
#include <malloc.h>
#include <pthread.h>
#include <semaphore.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <filesystem>
#include <functional>
#include <future>
#include <list>
#include <mutex>
#include <stdexcept>
#include <system_error>
#include <thread>

#include "child-process.h"
#include "fault-injection.h"
#include "fw-update-common.h"
#include "fw-update-symbol-manager.h"
#include "gate.h"
#include "library-test.h"

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;

namespace {

// Wraps to a limit of no time at all: the fastest way to run out of it.
constexpr unsigned int kNoTime = 4294967294U;

class GuardedUpdate : public LibraryTest {
 protected:
  void SetUp() override {
    LibraryTest::SetUp();
    faults::reset();
    std::filesystem::create_directories(kControls);
  }

  static FWUpdateSymbolManager& registry() { return *FWUpdateSymbolManager::getInstance(); }

  void oneModule(unsigned int expectedTime = 30) {
    scripted::installModule("libabc");
    writeImage(kBuiltin, "abc", "2.0", "content", expectedTime);
    registry().onCreate(false);
    recording::reset();
  }

  int update(const std::string& name = "libabc") {
    return registry().doUpdateFirmware(name, CALLER_UPGRADE_APP, data);
  }

  static int lockValue() {
    sem_t* const semaphore = sem_open(semName, 0);
    int value = -1;
    if (semaphore != SEM_FAILED) {
      sem_getvalue(semaphore, &value);
      sem_close(semaphore);
    }
    return value;
  }

  char data[8] = "text";
};

std::string said(const std::string& function, const std::string& text) {
  return "6 fw-update-symbol-manager.cpp " + function + " " + text;
}

}  // namespace

TEST_F(GuardedUpdate, AnswersMinusOneForAnEmptyRegistry) {
  EXPECT_EQ(update(), -1);

  EXPECT_THAT(recording::everything(), IsEmpty());
}

TEST_F(GuardedUpdate, AnswersMinusOneForAnUnknownName) {
  oneModule();

  EXPECT_EQ(update("libab"), -1);
  EXPECT_EQ(update("libabcd"), -1);
  EXPECT_EQ(update("LIBABC"), -1);
  EXPECT_EQ(update(std::string("libabc\0", 7)), -1);
  EXPECT_EQ(update(""), -1);

  EXPECT_THAT(recording::everything(), IsEmpty());
}

TEST_F(GuardedUpdate, DecidesThenUpdatesUnderTheLockOnAWorkerThread) {
  oneModule(30);
  int valueDuringUpdate = -1;
  std::thread::id worker;
  scripted::module("libabc").doUpdate = [&](const char*, unsigned long) {
    valueDuringUpdate = lockValue();
    worker = std::this_thread::get_id();
    return 0;
  };

  EXPECT_EQ(update(), 0);

  EXPECT_EQ(valueDuringUpdate, 0);
  EXPECT_EQ(lockValue(), 1);
  EXPECT_NE(worker, std::this_thread::get_id());
  EXPECT_THAT(recording::texts(),
              ElementsAre("libabc Firmware isNeedUpdateModules Try(abc)", "abc update time 30 ms",
                          "abc Firmware Update Try", "========== [ abc update start ] ==========",
                          "========== [ abc update succeeded ] =========="));
  EXPECT_THAT(recording::messages(), Contains(said("update_timeout_wrapper", "abc update time 30 ms")));
  EXPECT_THAT(recording::traceFormats(), Contains("%s update time %d ms"));
}

TEST_F(GuardedUpdate, ReturnsTheModulesResultUnchanged) {
  oneModule();
  for (const int result : {5, -17, 1, -1}) {
    scripted::module("libabc").doUpdateResult = result;

    EXPECT_EQ(update(), result);
    EXPECT_EQ(lockValue(), 1);
  }
}

TEST_F(GuardedUpdate, ReturnsTheDecisionWhenItIsNotOne) {
  oneModule();
  for (const int need : {0, 2, -3}) {
    scripted::module("libabc").need = need;

    EXPECT_EQ(update(), need);
  }
  EXPECT_THAT(recording::calls(), Not(Contains(HasSubstr("doUpdate("))));
  EXPECT_EQ(lockValue(), -1) << "the lock was not even made";
}

TEST_F(GuardedUpdate, VisitsEveryModuleOfTheNameAndReturnsTheLastResult) {
  oneModule();
  registry().onCreate(false);
  recording::reset();
  int calls = 0;
  scripted::module("libabc").doUpdate = [&calls](const char*, unsigned long) {
    return ++calls == 1 ? 11 : 22;
  };

  EXPECT_EQ(update(), 22);

  EXPECT_EQ(calls, 2);
}

TEST_F(GuardedUpdate, RunsTheProcessOfAnExtensionModuleWithoutLockOrDecision) {
  scripted::installModule("libEXT-abc");
  scripted::module("libEXT-abc").need = 0;
  registry().onCreate(false);
  recording::reset();
  std::thread::id thread;
  scripted::module("libEXT-abc").doUpdate = [&thread](const char*, unsigned long) {
    thread = std::this_thread::get_id();
    return 0;
  };

  EXPECT_EQ(update("libEXT-abc"), 0);

  EXPECT_EQ(thread, std::this_thread::get_id());
  EXPECT_EQ(lockValue(), -1);
  EXPECT_THAT(recording::calls(), ElementsAre("libEXT-abc.setContext(\"libEXT-abc\", 4, \"text\")",
                                              "libEXT-abc.doUpdate(\"libEXT-abc\", 0)"));
}

TEST_F(GuardedUpdate, VisitsEveryExtensionModuleOfTheName) {
  scripted::installModule("libEXT-abc");
  registry().onCreate(false);
  registry().onCreate(false);
  int calls = 0;
  scripted::module("libEXT-abc").doUpdate = [&calls](const char*, unsigned long) {
    return ++calls == 1 ? 0 : 22;
  };

  EXPECT_EQ(update("libEXT-abc"), -1) << "the second one's failure";

  EXPECT_EQ(calls, 2);
}

TEST_F(GuardedUpdate, HandsItsOwnCopyOfTheDataToTheWorker) {
  oneModule();
  std::vector<std::string> seen;
  scripted::module("libabc").setContext = [&](const char*, int, char* text) {
    seen.emplace_back(text);
    if (text != data) {
      seen.back() += " (copy)";
    }
    return 0;
  };

  EXPECT_EQ(update(), 0);

  EXPECT_THAT(seen, ElementsAre("text", "text (copy)"));
}

TEST_F(GuardedUpdate, HandsNullDataOn) {
  oneModule();

  EXPECT_EQ(registry().doUpdateFirmware("libabc", CALLER_UPGRADE_APP, nullptr), 0);

  EXPECT_THAT(recording::calls(), Contains("libabc.setContext(\"libabc\", 4, null)").Times(2));
}

// ---- Lock -------------------------------------------------------------------------

TEST_F(GuardedUpdate, AnswersMinusOneWithoutALock) {
  oneModule();
  ASSERT_EQ(mount("none", "/dev/shm", "tmpfs", MS_RDONLY, nullptr), 0);

  const int result = update();
  umount("/dev/shm");

  EXPECT_EQ(result, -1);
  EXPECT_THAT(recording::texts(), ElementsAre("libabc Firmware isNeedUpdateModules Try(abc)",
                                              "abc update time 30 ms", "Parent\t: [sem_open] Failed\n"));
}

TEST_F(GuardedUpdate, LeavesTheLocksHandleOpen) {
  oneModule();

  EXPECT_EQ(update(), 0);

  EXPECT_TRUE(hasSemaphoreOpen());
}

TEST_F(GuardedUpdate, WaitsForAnUpdateInAnotherProcess) {
  oneModule();
  writeFile("/tmp/order", "");
  const auto note = [](const char* text) {
    FILE* const file = fopen("/tmp/order", "a");
    fputs(text, file);
    fclose(file);
  };
  int ready[2];
  int release[2];
  ASSERT_EQ(pipe(ready), 0);
  ASSERT_EQ(pipe(release), 0);
  ChildProcess other([&] {
    scripted::module("libabc").doUpdate = [&](const char*, unsigned long) {
      note("other starts\n");
      char byte = 'x';
      if (write(ready[1], &byte, 1) != 1 || read(release[0], &byte, 1) != 1) {
        return 9;
      }
      note("other ends\n");
      return 0;
    };
    return update();
  });
  close(ready[1]);  // so that a child that ends early ends the reading too
  char byte = 'x';
  ASSERT_EQ(read(ready[0], &byte, 1), 1);
  scripted::module("libabc").doUpdate = [&](const char*, unsigned long) {
    note("mine\n");
    return 0;
  };
  const auto letOtherEnd = [&] {
    const char go = 'x';
    EXPECT_EQ(write(release[1], &go, 1), 1);
  };
  faults::beforeSemWait = letOtherEnd;

  EXPECT_EQ(update(), 0);

  letOtherEnd();  // also when nobody waited for the lock
  EXPECT_EQ(other.wait(), 0);
  EXPECT_EQ(readFile("/tmp/order"), "other starts\nother ends\nmine\n");
  EXPECT_EQ(lockValue(), 1);
}

TEST_F(GuardedUpdate, GoesOnWaitingForTheLockAfterASignal) {
  oneModule();
  sem_t* const semaphore = FWUpdateCommon::getInstance()->create_semaphore();
  ASSERT_EQ(sem_wait(semaphore), 0);
  struct sigaction action {};
  action.sa_handler = [](int) {};
  sigaction(SIGUSR1, &action, nullptr);
  std::atomic<int> interruptions{0};
  std::atomic<bool> updated{false};
  Gate waiting;
  faults::beforeSemWait = [&] { waiting.open(); };
  faults::afterSemWait = [&](int result, int error) {
    if (result != 0 && error == EINTR) {
      ++interruptions;
    }
  };
  scripted::module("libabc").doUpdate = [&](const char*, unsigned long) {
    updated = true;
    return 0;
  };

  std::thread caller([&] { EXPECT_EQ(update(), 0); });
  waiting.wait();
  while (interruptions == 0) {
    pthread_kill(caller.native_handle(), SIGUSR1);
    std::this_thread::yield();
  }
  EXPECT_FALSE(updated);
  sem_post(semaphore);
  caller.join();

  EXPECT_TRUE(updated);
  EXPECT_EQ(lockValue(), 1);
}

TEST_F(GuardedUpdate, GivesTheLockBackWhenTheWorkerCannotBeStarted) {
  oneModule();
  faults::failThreads = true;

  EXPECT_THROW(update(), std::system_error) << "no time-out, although a runtime_error";

  EXPECT_EQ(lockValue(), 1);
  EXPECT_THAT(recording::texts(), Not(Contains(HasSubstr("Error : "))));
}

// ---- Time limit ---------------------------------------------------------------------

TEST_F(GuardedUpdate, ReportsAModuleThatRunsOutOfTime) {
  oneModule(kNoTime);
  Gate release;
  Gate done;
  int valueAtTimeout = -1;
  scripted::module("libabc").doUpdate = [&](const char*, unsigned long) {
    release.wait();
    return 0;
  };
  recording::onMessage([&](const recording::LogLine& line) {
    if (line.format == "%s: %s(%d) > %s") {
      valueAtTimeout = lockValue();
    }
    if (line.text == "========== [ abc update succeeded ] ==========") {
      done.open();
    }
  });

  const int result = update();

  EXPECT_EQ(result, 1);
  EXPECT_EQ(valueAtTimeout, 1) << "the lock is free before the time-out is reported";
  EXPECT_EQ(lockValue(), 1);
  EXPECT_THAT(recording::messages(), Contains(said("update_timeout_wrapper", "abc update time -2 ms")));
  EXPECT_THAT(recording::messages(), Contains(said("update_timeout_wrapper", "abc update timeout")));
  EXPECT_THAT(recording::messages(), Contains(said("doUpdateFirmware", "Error : abc update timeout")));
  EXPECT_THAT(recording::traceFormats(), Contains("Error : %s"));
  release.open();
  done.wait();
}

TEST_F(GuardedUpdate, WaitsTwoSecondsMoreThanExpected) {
  const auto limitOf = [this](unsigned int expectedTime) {
    oneModule(expectedTime);
    faults::onTimedWait = [](pthread_cond_t*, pthread_mutex_t*, const timespec*) { return 0; };
    update();
    faults::reset();
    registry().onDestroy();
    return faults::lastWaitSeconds;
  };

  EXPECT_NEAR(limitOf(0), 2.0, 0.9);
  EXPECT_NEAR(limitOf(30), 32.0, 0.9);
  EXPECT_NEAR(limitOf(4294967295U), 1.0, 0.9) << "the sum wraps";
  EXPECT_NEAR(limitOf(4294967293U), 4294967295.0, 0.9);
}

TEST_F(GuardedUpdate, TakesAnUpdateThatFinishesBeforeTheWaitForATimeout) {
  oneModule(kNoTime);
  scripted::module("libabc").doUpdateResult = 0;
  // The real wait starts only after the worker has notified.
  faults::holdWaitUntilNotified = true;

  EXPECT_EQ(update(), 1);

  EXPECT_THAT(recording::texts(), Contains("========== [ abc update succeeded ] =========="));
  EXPECT_THAT(recording::texts(), Contains("abc update timeout"));
}

TEST_F(GuardedUpdate, TakesASpuriousWakeUpForTheEnd) {
  oneModule(30);
  Gate release;
  Gate done;
  scripted::module("libabc").doUpdate = [&](const char*, unsigned long) {
    release.wait();
    return 5;
  };
  recording::onMessage([&](const recording::LogLine& line) {
    if (line.text.rfind("Error: abc Firmware doUpdate Fail 5", 0) == 0) {
      done.open();
    }
  });
  faults::onTimedWait = [](pthread_cond_t*, pthread_mutex_t*, const timespec*) { return 0; };

  EXPECT_EQ(update(), 0) << "no result is stored yet";

  EXPECT_EQ(lockValue(), 1);
  release.open();
  done.wait();
}

TEST_F(GuardedUpdate, DoesNotTakeAJumpOfTheSystemClockForATimeout) {
  oneModule(30);
  Gate release;
  Gate done;
  scripted::module("libabc").doUpdate = [&](const char*, unsigned long) {
    release.wait();
    done.open();
    return 0;
  };
  faults::onTimedWait = [](pthread_cond_t*, pthread_mutex_t*, const timespec*) {
    faults::systemClockAhead = std::chrono::hours(1);
    return ETIMEDOUT;
  };

  EXPECT_EQ(update(), 0) << "the steady deadline has not passed";

  EXPECT_THAT(recording::texts(), Not(Contains("abc update timeout")));
  release.open();
  done.wait();
}

TEST_F(GuardedUpdate, GoesOnWithTheNextModuleAfterATimeout) {
  oneModule(kNoTime);
  registry().onCreate(false);
  recording::reset();
  Gate release;
  std::atomic<int> entered{0};
  std::atomic<int> left{0};
  scripted::module("libabc").doUpdate = [&](const char*, unsigned long) {
    ++entered;
    release.wait();
    ++left;
    return 0;
  };

  EXPECT_EQ(update(), 1);

  const auto texts = recording::texts();
  EXPECT_EQ(std::count(texts.begin(), texts.end(), "abc update timeout"), 2);
  release.open();
  while (left < 2) {
    std::this_thread::yield();
  }
}

TEST_F(GuardedUpdate, KeepsTheRecordsOfARunningWorkerWhenTheRegistryIsEmptied) {
  oneModule(kNoTime);
  Gate release;
  Gate done;
  scripted::module("libabc").doUpdate = [&](const char*, unsigned long) {
    release.wait();
    return 3;
  };
  recording::onMessage([&](const recording::LogLine& line) {
    if (line.text.rfind("Error: abc Firmware doUpdate Fail 3", 0) == 0) {
      done.open();
    }
  });
  ASSERT_EQ(update(), 1);

  EXPECT_TRUE(registry().onDestroy());

  std::list<FWUpdateItem> items;
  registry().getFwItems(items);
  EXPECT_THAT(items, IsEmpty());
  release.open();
  done.wait();  // in the module's library, and with the record's names
  // Nothing is kept once the worker is gone for good.
  while (isLoaded("libabc")) {
    std::this_thread::yield();
    registry().onDestroy();
  }
}

TEST_F(GuardedUpdate, KeepsTheRecordsOfARunningWorkerWhenTheRegistryGrows) {
  // Freed memory loses its content, unless it is small: hence a second module.
  mallopt(M_PERTURB, 0x5A);
  scripted::installModule("libdef");
  oneModule(kNoTime);
  Gate release;
  Gate done;
  scripted::module("libabc").doUpdate = [&](const char*, unsigned long) {
    release.wait();
    return 3;
  };
  recording::onMessage([&](const recording::LogLine& line) {
    if (line.text.rfind("Error: abc Firmware doUpdate Fail 3", 0) == 0) {
      done.open();
    }
  });
  ASSERT_EQ(update(), 1);

  for (int i = 0; i < 4; ++i) {
    EXPECT_TRUE(registry().onCreate(false));
  }

  std::list<FWUpdateItem> items;
  registry().getFwItems(items);
  EXPECT_EQ(items.size(), 10U);
  release.open();
  done.wait();
}

TEST_F(GuardedUpdate, EndsTheProcessUnderARunningWorkerWithoutHarm) {
  oneModule(kNoTime);

  const int code = runInChild([this]() -> int {
    scripted::module("libabc").doUpdate = [](const char*, unsigned long) {
      for (;;) {
        std::this_thread::yield();
      }
      return 0;
    };
    const int result = update();
    std::exit(result == 1 ? 42 : 43);  // static destruction with the worker running
  });

  EXPECT_EQ(code, 42);
}

// ---- Modules that throw ---------------------------------------------------------------

TEST_F(GuardedUpdate, CountsAnExceptionOnTheWorkerAsMinusOne) {
  oneModule();
  scripted::module("libabc").doUpdate = [](const char*, unsigned long) -> int {
    throw std::runtime_error("it broke");
  };

  EXPECT_EQ(update(), -1);

  EXPECT_THAT(recording::messages(), Contains(said("update_timeout_wrapper", "Error : it broke")));
  EXPECT_EQ(lockValue(), 1);
  scripted::module("libabc").doUpdate = [](const char*, unsigned long) -> int { throw 5; };
  EXPECT_EQ(update(), -1);
  EXPECT_THAT(recording::messages(), Contains(said("update_timeout_wrapper", "Error : unknown exception")));
}

TEST_F(GuardedUpdate, LetsAnExceptionOnTheCallersThreadThrough) {
  oneModule();
  scripted::module("libabc").checkVersion = [](const char*, int*) -> int {
    throw std::logic_error("it broke");
  };

  EXPECT_THROW(update(), std::logic_error);
}

TEST_F(GuardedUpdate, RunsOutOfTimeWhenTheModuleEndsItsThread) {
  oneModule(kNoTime);
  scripted::module("libabc").doUpdate = [](const char*, unsigned long) -> int { pthread_exit(nullptr); };

  EXPECT_EQ(update(), 1);

  EXPECT_EQ(lockValue(), 1);
  // The worker counts as gone once it is unwound.
  while (isLoaded("libabc")) {
    std::this_thread::yield();
    registry().onDestroy();
  }
}
