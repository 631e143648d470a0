// SPDX-License-Identifier: Apache-2.0
// The pending update list.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <csignal>
#include <filesystem>
#include <thread>

#include "fault-injection.h"
#include "fw-update-symbol-manager.h"
#include "library-test.h"
#include "mounted-over.h"

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Not;

namespace fs = std::filesystem;

namespace {

const std::string kList = "/tmp/fwupdate-off-list.txt";

std::string said(const std::string& function, const std::string& text) {
  return "6 fw-update-symbol-manager.cpp " + function + " " + text;
}

class PendingList : public LibraryTest {
 protected:
  void SetUp() override {
    LibraryTest::SetUp();
    faults::reset();
    fs::create_directories(kControls);
  }

  static FWUpdateSymbolManager& registry() { return *FWUpdateSymbolManager::getInstance(); }

  // Modules with a package, in the order of the registry's list.
  std::vector<std::string> modules(const std::vector<std::string>& stems) {
    for (const std::string& stem : stems) {
      scripted::installModule(stem);
      scripted::module(stem).empId = empId(stem);
      writePackage(empId(stem), empId(stem).substr(3));
    }
    std::vector<std::string> order;
    for (const auto& entry : fs::directory_iterator(kControls)) {
      order.push_back(entry.path().stem());
    }
    registry().onCreate(false);
    recording::reset();
    return order;
  }

  static std::string empId(const std::string& stem) {
    std::string id = "emp";
    for (const char c : stem) {
      id += std::isalnum(static_cast<unsigned char>(c)) != 0 ? c : 'x';
    }
    return id;
  }

  static std::string line(const std::string& stem) { return stem + " " + empId(stem) + "\n"; }
  static std::string needed(const std::string& stem) {
    return "Need Update [" + stem + "][" + empId(stem) + "]";
  }

  int writeList() { return registry().writeFirmwareUpdateList(running); }

  bool running = true;
};

}  // namespace

TEST_F(PendingList, IsEmptyWithoutModulesAndDoesNotAskWhetherToGoOn) {
  running = false;

  EXPECT_EQ(writeList(), 0);

  EXPECT_EQ(readFile(kList), "");
  EXPECT_THAT(recording::everything(), IsEmpty());
}

TEST_F(PendingList, HoldsOneLineForEachModuleThatNeedsAnUpdate) {
  const auto order = modules({"liba", "libb", "libc"});

  EXPECT_EQ(writeList(), 3);

  EXPECT_EQ(readFile(kList), line(order[0]) + line(order[1]) + line(order[2]));
  EXPECT_TRUE(running);
}

TEST_F(PendingList, HoldsOnlyTheSecondOfThreeModules) {
  const auto order = modules({"liba", "libb", "libc"});
  scripted::module(order[0]).need = 0;
  scripted::module(order[2]).need = 0;

  EXPECT_EQ(writeList(), 1);

  EXPECT_EQ(readFile(kList), line(order[1]));
  EXPECT_THAT(recording::messages(), Contains(said("writeFirmwareUpdateList", needed(order[1]))));
  EXPECT_THAT(recording::traceFormats(), Contains("Need Update [%s][%s]").Times(1));
}

TEST_F(PendingList, CountsOnlyAnAnswerOfExactlyOne) {
  const auto order = modules({"liba", "libb", "libc", "libd"});
  scripted::module(order[0]).need = 2;
  scripted::module(order[1]).need = -1;
  scripted::module(order[2]).checkVersionResult = 1;

  EXPECT_EQ(writeList(), 1);

  EXPECT_EQ(readFile(kList), line(order[3]));
}

TEST_F(PendingList, AsksEachModuleAsAQueryWithoutData) {
  modules({"liba"});
  const std::string directory = "/opt/usr/apps/appbinarymanager/emps/empliba";

  EXPECT_EQ(writeList(), 1);

  EXPECT_THAT(
      recording::everything(),
      ElementsAre("log: liba Firmware isNeedUpdateModules Try(liba)", "PS_Umount(" + directory + "|43|0|0)",
                  "log: Umount dir[" + directory + "] successfully.",
                  "log: PsMntCmd:[-o ro,loop,nodev,nosuid "
                  "/opt/usr/apps/appbinarymanager/empliba.img " +
                      directory + "]",
                  "PS_Mount(-o ro,loop,nodev,nosuid /opt/usr/apps/appbinarymanager/empliba.img " + directory +
                      "|1024|0|0)",
                  "liba.setContext(\"liba\", 2, \"\")", "liba.checkVersion(\"2.0\", 0)",
                  "log: Need Update [liba][empliba]"));
}

TEST_F(PendingList, QuotesNothing) {
  const std::string stem = "lib a%s\"'\\";
  modules({stem});

  EXPECT_EQ(writeList(), 1);

  EXPECT_EQ(readFile(kList), line(stem));
}

TEST_F(PendingList, LeavesOutModulesThatCannotBeUpdated) {
  writeFile(std::string(kControls) + "libbroken.so", "no library");
  scripted::installModule("libEXT-abc");
  modules({"liba"});
  fs::remove("/opt/usr/apps/appbinarymanager/empliba.img");

  EXPECT_EQ(writeList(), 0);

  EXPECT_EQ(readFile(kList), "");
}

// ---- Stopping -----------------------------------------------------------------------

TEST_F(PendingList, IsEmptiedWhenTheTaskIsNotRunning) {
  modules({"liba"});
  writeFile(kList, "what was there before\n");
  running = false;

  EXPECT_EQ(writeList(), -1);

  EXPECT_EQ(readFile(kList), "");
  EXPECT_FALSE(running);
  EXPECT_THAT(recording::messages(), ElementsAre(said("writeFirmwareUpdateList",
                                                      "Task is not running, writeFirmwareUpdateList stop")));
  EXPECT_THAT(recording::traceFormats(), ElementsAre("Task is not running, writeFirmwareUpdateList stop"));
  EXPECT_THAT(recording::calls(), IsEmpty());
}

TEST_F(PendingList, KeepsTheLinesWrittenBeforeTheTaskStopped) {
  const auto order = modules({"liba", "libb", "libc"});
  scripted::module(order[1]).checkVersion = [this](const char*, int* need) {
    running = false;
    *need = 1;
    return 0;
  };

  EXPECT_EQ(writeList(), -1);

  EXPECT_EQ(readFile(kList), line(order[0]) + line(order[1])) << "it stops at the next module only";
  EXPECT_THAT(recording::calls(), Not(Contains(order[2] + ".checkVersion(\"2.0\", 0)")));
  EXPECT_EQ(recording::texts().back(), "Task is not running, writeFirmwareUpdateList stop");
}

// Mostly for a thread checker: nothing but the flag connects the two threads.
TEST_F(PendingList, StopsForAFlagThatAnotherThreadClears) {
  const auto order = modules({"liba", "libb"});
  std::atomic<bool> asked{false};
  std::atomic<bool> cleared{false};
  const auto waitFor = [](const std::atomic<bool>& event) {
    while (!event.load(std::memory_order_relaxed)) {
      std::this_thread::yield();
    }
  };
  scripted::module(order[0]).checkVersion = [&](const char*, int* need) {
    asked.store(true, std::memory_order_relaxed);
    waitFor(cleared);
    *need = 1;
    return 0;
  };
  std::thread task([&] {
    waitFor(asked);
    __atomic_store_n(&running, false, __ATOMIC_RELAXED);
    cleared.store(true, std::memory_order_relaxed);
  });

  EXPECT_EQ(writeList(), -1);
  asked.store(true, std::memory_order_relaxed);  // also when the module was not
  task.join();

  EXPECT_EQ(readFile(kList), line(order[0]));
}

// ---- What stands at the path --------------------------------------------------------

TEST_F(PendingList, ReplacesAFile) {
  modules({"liba"});
  writeFile(kList, std::string(1000, 'x'));

  EXPECT_EQ(writeList(), 1);

  EXPECT_EQ(readFile(kList), line("liba"));
}

TEST_F(PendingList, IsReadableByOthersAndWritableByItsOwner) {
  const mode_t previous = umask(0);
  EXPECT_EQ(writeList(), 0);
  umask(previous);

  struct stat status = {};
  ASSERT_EQ(stat(kList.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode, static_cast<mode_t>(S_IFREG | 0644));
}

class LinkAtTheListsPath : public PendingList, public ::testing::WithParamInterface<const char*> {};

TEST_P(LinkAtTheListsPath, IsRefusedAndLeftAlone) {
  modules({"liba"});
  writeFile("/tmp/file", "content");
  fs::create_directory("/tmp/directory");
  fs::create_symlink(GetParam(), kList);
  const int reached = access(kList.c_str(), F_OK);

  EXPECT_EQ(writeList(), -1);

  EXPECT_EQ(fs::read_symlink(kList), GetParam());
  EXPECT_EQ(access(kList.c_str(), F_OK), reached) << "nothing is made behind a dangling link";
  EXPECT_EQ(readFile("/tmp/file"), "content");
  EXPECT_THAT(recording::messages(),
              ElementsAre(said("check_race_condition", "symbolic link is detected\n"),
                          said("writeFirmwareUpdateList", "fail check_race_condition\n")));
  EXPECT_THAT(recording::traceFormats(),
              ElementsAre("symbolic link is detected\n", "fail check_race_condition\n"));
  EXPECT_THAT(recording::calls(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(PendingList, LinkAtTheListsPath,
                         ::testing::Values("/tmp/nowhere", "/tmp/file", "/tmp/directory",
                                           "/tmp/fwupdate-off-list.txt"));

TEST_F(PendingList, IsNotWrittenThroughALinkThatComesAfterTheCheck) {
  modules({"liba"});
  writeFile("/tmp/file", "content");
  faults::afterLstat = [](const char* path) {
    std::error_code alreadyThere;
    if (path == kList) {
      fs::create_symlink("/tmp/file", kList, alreadyThere);
    }
  };

  EXPECT_EQ(writeList(), 1) << "lost silently";

  EXPECT_EQ(readFile("/tmp/file"), "content");
  EXPECT_EQ(fs::read_symlink(kList), "/tmp/file");
  EXPECT_THAT(recording::messages(), Contains(said("writeFirmwareUpdateList", needed("liba"))));
}

TEST_F(PendingList, ReportsAPathWhoseStatusCannotBeRead) {
  modules({"liba"});
  fs::permissions("/tmp", fs::perms::none);
  const WithoutFileOverride asAnyone;

  EXPECT_EQ(writeList(), -1);

  EXPECT_THAT(recording::messages(),
              ElementsAre(said("check_race_condition", "lstat error\n"),
                          said("writeFirmwareUpdateList", "fail check_race_condition\n")));
  EXPECT_THAT(recording::traceFormats(), ElementsAre("lstat error\n", "fail check_race_condition\n"));
  EXPECT_THAT(recording::calls(), IsEmpty());
}

TEST_F(PendingList, IsLostSilentlyWhereADirectoryStands) {
  const auto order = modules({"liba", "libb"});
  writeFile(kList + "/file", "content");

  EXPECT_EQ(writeList(), 2);

  EXPECT_EQ(readFile(kList + "/file"), "content");
  EXPECT_THAT(recording::messages(), Contains(said("writeFirmwareUpdateList", needed(order[0]))));
  EXPECT_EQ(recording::texts().back(), needed(order[1]));
}

TEST_F(PendingList, IsLostSilentlyWhereItMayNotBeWritten) {
  modules({"liba"});
  fs::permissions("/tmp", fs::perms::owner_read | fs::perms::owner_exec);
  {
    const WithoutFileOverride asAnyone;
    EXPECT_EQ(writeList(), 1);
  }

  EXPECT_FALSE(exists(kList));
  EXPECT_EQ(recording::texts().back(), needed("liba"));
}

TEST_F(PendingList, IsLostSilentlyOnAFullFileSystem) {
  modules({"liba"});
  const MountedOver tmp = MountedOver::memory("/tmp", "mode=1777,size=4k");
  writeFile("/tmp/filler", std::string(4096, 'x'));

  EXPECT_EQ(writeList(), 1);

  EXPECT_EQ(readFile(kList), "");
  EXPECT_EQ(recording::texts().back(), needed("liba"));
}

TEST_F(PendingList, DoesNotWaitForTheReaderOfAFifo) {
  modules({"liba"});
  ASSERT_EQ(mkfifo(kList.c_str(), 0600), 0);

  EXPECT_EQ(writeList(), 1);

  EXPECT_TRUE(fs::is_fifo(kList));
  EXPECT_EQ(recording::texts().back(), needed("liba"));
}

TEST_F(PendingList, ReachesTheReaderOfAFifo) {
  modules({"liba"});
  ASSERT_EQ(mkfifo(kList.c_str(), 0600), 0);
  const int reader = open(kList.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  ASSERT_GE(reader, 0);

  EXPECT_EQ(writeList(), 1);

  std::array<char, 100> text{};
  EXPECT_EQ(read(reader, text.data(), text.size()), static_cast<ssize_t>(line("liba").size()));
  EXPECT_EQ(text.data(), line("liba"));
  close(reader);
}

TEST_F(PendingList, IsLostSilentlyWhenTheReaderOfAFifoLeaves) {
  modules({"liba"});
  ASSERT_EQ(mkfifo(kList.c_str(), 0600), 0);
  const int reader = open(kList.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  ASSERT_GE(reader, 0);
  scripted::module("liba").checkVersion = [reader](const char*, int* need) {
    close(reader);
    *need = 1;
    return 0;
  };

  EXPECT_EQ(writeList(), 1) << "and the process goes on";

  sigset_t pending;
  sigset_t blocked;
  ASSERT_EQ(sigpending(&pending), 0);
  ASSERT_EQ(pthread_sigmask(SIG_BLOCK, nullptr, &blocked), 0);
  EXPECT_EQ(sigismember(&pending, SIGPIPE), 0) << "nothing is left for the caller";
  EXPECT_EQ(sigismember(&blocked, SIGPIPE), 0);
}
