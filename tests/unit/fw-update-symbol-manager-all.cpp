// SPDX-License-Identifier: Apache-2.0
// The run over all modules: update all, all updates done, download all.
#include <sys/mount.h>

#include <filesystem>
#include <stdexcept>

#include "fault-injection.h"
#include "fw-update-symbol-manager.h"
#include "gate.h"
#include "library-test.h"
#include "mounted-over.h"

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::ElementsAreArray;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;

namespace fs = std::filesystem;

namespace {

const std::string kList = "/tmp/fwupdate-off-list.txt";
// Wraps to a limit of no time at all: the fastest way to run out of it.
constexpr unsigned int kNoTime = 4294967294U;

std::string said(const std::string& function, const std::string& text) {
  return "6 fw-update-symbol-manager.cpp " + function + " " + text;
}

class UpdateAll : public LibraryTest {
 protected:
  void SetUp() override {
    LibraryTest::SetUp();
    faults::reset();
    fs::create_directories(kControls);
  }

  static FWUpdateSymbolManager& registry() { return *FWUpdateSymbolManager::getInstance(); }

  struct Row {
    std::string stem;
    unsigned int expectedTime = 30;
    int need = 1;
  };

  // Registers modules with packages and flags those that need an update. The rows
  // take effect in the order of the registry's list; returned are the stems.
  std::vector<std::string> modules(std::vector<Row> rows) {
    for (const Row& row : rows) {
      scripted::installModule(row.stem);
    }
    std::vector<std::string> order;
    for (const auto& entry : fs::directory_iterator(kControls)) {
      order.push_back(entry.path().stem());
    }
    for (std::size_t i = 0; i < rows.size(); ++i) {
      scripted::module(order[i]).empId = "emp" + order[i];
      scripted::module(order[i]).need = rows[i].need;
      writePackage("emp" + order[i], order[i], "2.0", "content", rows[i].expectedTime);
    }
    registry().onCreate(false);
    std::list<FWUpdateItem> items;
    char noData[] = "";
    registry().getUpdateFwItems(items, CALLER_QUERY, noData);
    recording::reset();
    return order;
  }

  static std::vector<std::string> updateOf(const std::string& stem) {
    const std::string directory = "/opt/usr/apps/appbinarymanager/emps/emp" + stem;
    const std::string image = "/opt/usr/apps/appbinarymanager/emp" + stem + ".img";
    const std::string umount = "PS_Umount(" + directory + "|" + std::to_string(directory.size()) + "|0|0)";
    const std::string unmounted = "log: Umount dir[" + directory + "] successfully.";
    return {
        "log: " + stem + " update time 30 ms",
        "log: " + stem + " Firmware Update Try",
        umount,
        unmounted,
        "log: PsMntCmd:[-o ro,loop,nodev,nosuid " + image + " " + directory + "]",
        "PS_Mount(-o ro,loop,nodev,nosuid " + image + " " + directory + "|1024|0|0)",
        stem + ".setContext(\"" + stem + "\", 2, \"\")",
        stem + ".checkVersion(\"2.0\", -1)",
        "log: ========== [ " + stem + " update start ] ==========",
        stem + ".doUpdate(\"" + directory + "/" + stem + ".bin\", " +
            std::to_string(referenceCrc("content")) + ")",
        "log: ========== [ " + stem + " update succeeded ] ==========",
        umount,
        unmounted,
        "log: EMP UMount Success " + image,
    };
  }
};

std::string checkDone(const std::string& stem) {
  return stem + " Firmware Expected Time Check Done";
}

std::string total(const std::string& ms) {
  return "about total update time is " + ms + " ms, Lock the power during about that time.";
}

std::vector<std::string> joined(std::initializer_list<std::vector<std::string>> parts) {
  std::vector<std::string> out;
  for (const auto& part : parts) {
    out.insert(out.end(), part.begin(), part.end());
  }
  return out;
}

}  // namespace

// ---- Nothing to update --------------------------------------------------------------

TEST_F(UpdateAll, OnlySignalsTheEventForAnEmptyRegistry) {
  writeFile(kList, "kept");

  EXPECT_EQ(registry().doUpdateFirmwareAll(CALLER_FACTORY), 0);

  EXPECT_THAT(recording::everything(),
              ElementsAre("log: Try doUpdateFirmwareAll", "LwipcEventDone(/tmp/.ignore_resume)",
                          "log: There is no update item"));
  EXPECT_FALSE(exists("/tmp/.ignore_resume"));
  EXPECT_EQ(readFile(kList), "kept");
}

TEST_F(UpdateAll, LeavesPowerModulesAndListAloneWhenNoneNeedsAnUpdate) {
  const auto order = modules({{"liba", 30, 0}, {"libb", 60, 0}});
  writeFile(kList, "kept");

  EXPECT_EQ(registry().doUpdateFirmwareAll(CALLER_QUERY), 0);

  EXPECT_THAT(recording::everything(),
              ElementsAre("log: Try doUpdateFirmwareAll", "LwipcEventDone(/tmp/.ignore_resume)",
                          "log: " + checkDone(order[0]), "log: " + checkDone(order[1]),
                          "log: There is no update item"));
  EXPECT_THAT(recording::messages(), ElementsAre(said("doUpdateFirmwareAll", "Try doUpdateFirmwareAll"),
                                                 said("doUpdateFirmwareAll", checkDone(order[0])),
                                                 said("doUpdateFirmwareAll", checkDone(order[1])),
                                                 said("doUpdateFirmwareAll", "There is no update item")));
  EXPECT_THAT(recording::traceFormats(),
              ElementsAre("Try doUpdateFirmwareAll", "%s Firmware Expected Time Check Done",
                          "%s Firmware Expected Time Check Done", "There is no update item"));
  EXPECT_EQ(readFile(kList), "kept");
}

TEST_F(UpdateAll, PassesOverModulesThatWereNeverAsked) {
  scripted::installModule("liba");
  writePackage("abcemp", "abc");
  registry().onCreate(false);
  recording::reset();

  EXPECT_EQ(registry().doUpdateFirmwareAll(CALLER_QUERY), 0);

  EXPECT_EQ(recording::texts().back(), "There is no update item");
}

// ---- The run ------------------------------------------------------------------------

TEST_F(UpdateAll, RunsInOnePassAfterAnother) {
  const auto order = modules({{"liba", 30, 1}, {"libb", 60, 0}, {"libc", 30, 1}});
  writeFile(kList, "pending\n");

  EXPECT_EQ(registry().doUpdateFirmwareAll(CALLER_LSM), 0);

  EXPECT_THAT(
      recording::everything(),
      ElementsAreArray(joined({{"log: Try doUpdateFirmwareAll", "LwipcEventDone(/tmp/.ignore_resume)",
                                "log: " + checkDone(order[0]), "log: " + checkDone(order[1]),
                                "log: " + checkDone(order[2]), "log: " + total("60000"),
                                "device_power_lock_state(2, 70000)", "log: device_power_lock_state done"},
                               updateOf(order[0]),
                               updateOf(order[2]),
                               {order[0] + ".allUpdateDone()", order[1] + ".allUpdateDone()",
                                order[2] + ".allUpdateDone()", "log: device_power_unlock_state",
                                "device_power_unlock_state(2)", "log: device_power_unlock_state done"}})));
  EXPECT_FALSE(exists(kList));
}

TEST_F(UpdateAll, SaysEverythingAtErrorPriorityAndTracesIt) {
  const auto order = modules({{"liba", 30, 1}});

  registry().doUpdateFirmwareAll(CALLER_QUERY);

  for (const std::string& text :
       {std::string("Try doUpdateFirmwareAll"), checkDone("liba"), total("30000"),
        std::string("device_power_lock_state done"), std::string("device_power_unlock_state"),
        std::string("device_power_unlock_state done")}) {
    EXPECT_THAT(recording::messages(), Contains(said("doUpdateFirmwareAll", text)));
  }
  for (const char* format :
       {"Try doUpdateFirmwareAll", "%s Firmware Expected Time Check Done",
        "about total update time is %d ms, Lock the power during about that time.",
        "device_power_lock_state done", "device_power_unlock_state", "device_power_unlock_state done"}) {
    EXPECT_THAT(recording::traceFormats(), Contains(format).Times(1));
  }
}

TEST_F(UpdateAll, HoldsThePowerForTheTotalAndFiveSecondsForEachModule) {
  modules({{"liba", 30, 1}, {"libb", 60, 1}});

  registry().doUpdateFirmwareAll(CALLER_QUERY);

  EXPECT_THAT(recording::texts(), Contains(total("90000")));
  EXPECT_THAT(recording::calls(), Contains("device_power_lock_state(2, 100000)"));
}

TEST_F(UpdateAll, CountsTheTimeOfFlaggedModulesOnly) {
  modules({{"liba", 30, 1}, {"libb", 60, 0}, {"libc", 0, 1}});

  registry().doUpdateFirmwareAll(CALLER_QUERY);

  EXPECT_THAT(recording::texts(), Contains(total("30000")));
  EXPECT_THAT(recording::calls(), Contains("device_power_lock_state(2, 40000)"));
}

TEST_F(UpdateAll, LetsTheTotalWrap) {
  // 2147483 s are 2147483000 ms; the second module goes past the largest int.
  modules({{"liba", 2147483, 1}, {"libb", 1, 1}});

  EXPECT_EQ(registry().doUpdateFirmwareAll(CALLER_QUERY), 0);

  EXPECT_THAT(recording::texts(), Contains(total("-2147483296")));
  EXPECT_THAT(recording::calls(), Contains("device_power_lock_state(2, -2147473296)"));
}

TEST_F(UpdateAll, IncludesAModuleFlaggedByANegativeAnswer) {
  const auto order = modules({{"liba", 30, -2}});

  EXPECT_EQ(registry().doUpdateFirmwareAll(CALLER_QUERY), 0);

  EXPECT_THAT(recording::calls(), Contains("device_power_lock_state(2, 35000)"));
  EXPECT_THAT(recording::texts(), Contains("Error: liba Firmware not need update"));
}

TEST_F(UpdateAll, WaitsForEachModuleItsOwnTimeAndTwoSeconds) {
  const auto order = modules({{"liba", 30, 1}, {"libb", 60, 1}});
  // Both are said on the caller's thread, when the wait before them is over.
  std::vector<double> limits;
  recording::onMessage([&limits](const recording::LogLine& line) {
    if (line.function == "update_timeout_wrapper" || line.text == "device_power_unlock_state") {
      limits.push_back(faults::lastWaitSeconds);
    }
  });

  registry().doUpdateFirmwareAll(CALLER_QUERY);

  ASSERT_EQ(limits.size(), 3U);
  EXPECT_NEAR(limits[1], 32.0, 0.9);
  EXPECT_NEAR(limits[2], 62.0, 0.9);
}

class AnyCaller : public UpdateAll, public ::testing::WithParamInterface<int> {};

TEST_P(AnyCaller, IsIgnored) {
  const auto order = modules({{"liba", 30, 1}, {"libb", 60, 1}});

  EXPECT_EQ(registry().doUpdateFirmwareAll(static_cast<CallerTypes>(GetParam())), 0);

  std::vector<std::string> contexts;
  for (const std::string& call : recording::calls()) {
    if (call.find("setContext") != std::string::npos) {
      contexts.push_back(call);
    }
  }
  EXPECT_THAT(contexts, ElementsAre(order[0] + ".setContext(\"" + order[0] + "\", 2, \"\")",
                                    order[1] + ".setContext(\"" + order[1] + "\", 2, \"\")"));
}

INSTANTIATE_TEST_SUITE_P(UpdateAll, AnyCaller, ::testing::Values(0, 1, 2, 3, 4, 5, 6, 7, 99, -1));

TEST_F(UpdateAll, IgnoresWhatThePlatformAndTheModulesAnswer) {
  const auto order = modules({{"liba", 30, 1}, {"libb", 30, 1}});
  recording::answers().eventStatus = -1;
  recording::answers().powerLockStatus = -1;
  recording::answers().powerUnlockStatus = -1;
  for (const std::string& stem : order) {
    scripted::module(stem).doUpdateResult = -5;
    scripted::module(stem).allUpdateDoneResult = -6;
  }
  writeFile(kList, "pending\n");

  EXPECT_EQ(registry().doUpdateFirmwareAll(CALLER_QUERY), 0);

  EXPECT_THAT(recording::calls(), Contains(HasSubstr(".doUpdate(")).Times(2));
  EXPECT_THAT(recording::calls(), Contains(HasSubstr(".allUpdateDone()")).Times(2));
  EXPECT_EQ(recording::calls().back(), "device_power_unlock_state(2)");
  EXPECT_FALSE(exists(kList));
}

TEST_F(UpdateAll, EndsWellWithoutAPendingList) {
  modules({{"liba", 30, 1}});

  EXPECT_EQ(registry().doUpdateFirmwareAll(CALLER_QUERY), 0);

  EXPECT_EQ(recording::texts().back(), "device_power_unlock_state done");
}

TEST_F(UpdateAll, RemovesThePendingListAtTheVeryEnd) {
  modules({{"liba", 30, 1}});
  writeFile(kList, "pending\n");
  bool listAtTheEnd = false;
  recording::onMessage([&](const recording::LogLine& line) {
    if (line.text == "device_power_unlock_state done") {
      listAtTheEnd = exists(kList);
    }
  });

  registry().doUpdateFirmwareAll(CALLER_QUERY);

  EXPECT_TRUE(listAtTheEnd);
  EXPECT_FALSE(exists(kList));
}

TEST_F(UpdateAll, ToleratesAModuleWithoutAllUpdateDone) {
  scripted::installModule("libx", "allUpdateDone");
  modules({{"libx", 30, 1}});

  EXPECT_EQ(registry().doUpdateFirmwareAll(CALLER_QUERY), 0);

  EXPECT_EQ(recording::calls().back(), "device_power_unlock_state(2)");
}

TEST_F(UpdateAll, KeepsTheFlags) {
  modules({{"liba", 30, 1}});
  registry().doUpdateFirmwareAll(CALLER_QUERY);
  recording::reset();

  registry().doUpdateFirmwareAll(CALLER_QUERY);

  EXPECT_THAT(recording::calls(), Contains("device_power_lock_state(2, 35000)"));
}

// ---- Failures -----------------------------------------------------------------------

TEST_F(UpdateAll, GoesOnAfterAModuleThatRanOutOfTime) {
  const auto order = modules({{"liba", kNoTime, 1}, {"libb", 30, 1}});
  Gate release;
  Gate done;
  scripted::module(order[0]).doUpdate = [&](const char*, unsigned long) {
    release.wait();
    return 0;
  };
  // It holds the mutex of updates, so the other module starts when it ends.
  recording::onMessage([&](const recording::LogLine& line) {
    if (line.text == "Error : " + order[0] + " update timeout") {
      release.open();
    }
    if (line.text == "EMP UMount Success /opt/usr/apps/appbinarymanager/emp" + order[0] + ".img") {
      done.open();
    }
  });
  writeFile(kList, "pending\n");

  EXPECT_EQ(registry().doUpdateFirmwareAll(CALLER_QUERY), 0);
  done.wait();

  EXPECT_THAT(recording::messages(), Contains(said("update_timeout_wrapper", order[0] + " update timeout")));
  EXPECT_THAT(recording::messages(),
              Contains(said("doUpdateFirmwareAll", "Error : " + order[0] + " update timeout")).Times(1));
  EXPECT_THAT(recording::traceFormats(), Contains("Error : %s").Times(1));
  EXPECT_THAT(recording::texts(), Contains("========== [ " + order[1] + " update succeeded ] =========="));
  EXPECT_THAT(recording::calls(), Contains(order[0] + ".allUpdateDone()"));
  EXPECT_THAT(recording::calls(), Contains(order[1] + ".allUpdateDone()"));
  // -2 s in 32 bits and 30 s, and 5 s for each.
  EXPECT_THAT(recording::texts(), Contains(total("28000")));
  EXPECT_THAT(recording::calls(), Contains("device_power_lock_state(2, 38000)"));
  EXPECT_FALSE(exists(kList));
}

TEST_F(UpdateAll, UnlocksThePowerWhileATimedOutModuleStillRuns) {
  const auto order = modules({{"liba", kNoTime, 1}});
  Gate release;
  Gate done;
  scripted::module("liba").doUpdate = [&](const char*, unsigned long) {
    release.wait();
    return 7;
  };
  recording::onMessage([&](const recording::LogLine& line) {
    if (line.text.rfind("Error: liba Firmware doUpdate Fail 7", 0) == 0) {
      done.open();
    }
  });

  EXPECT_EQ(registry().doUpdateFirmwareAll(CALLER_QUERY), 0);

  EXPECT_THAT(recording::texts(), Contains("device_power_unlock_state done"));
  EXPECT_THAT(recording::calls(), Contains("device_power_unlock_state(2)"));
  release.open();
  done.wait();
}

TEST_F(UpdateAll, GoesOnAfterAModuleThatThrew) {
  const auto order = modules({{"liba", 30, 1}, {"libb", 30, 1}});
  scripted::module(order[0]).doUpdate = [](const char*, unsigned long) -> int {
    throw std::logic_error("it broke");
  };

  EXPECT_EQ(registry().doUpdateFirmwareAll(CALLER_QUERY), 0);

  EXPECT_THAT(recording::messages(), Contains(said("update_timeout_wrapper", "Error : it broke")));
  EXPECT_THAT(recording::texts(), Contains("========== [ " + order[1] + " update succeeded ] =========="));
}

TEST_F(UpdateAll, GoesOnSilentlyWithoutTheUpdateLock) {
  const auto order = modules({{"liba", 30, 1}, {"libb", 30, 1}});
  const MountedOver shm = MountedOver::memory("/dev/shm", "mode=0755", MS_RDONLY);
  writeFile(kList, "pending\n");

  EXPECT_EQ(registry().doUpdateFirmwareAll(CALLER_QUERY), 0);

  EXPECT_THAT(recording::calls(), Not(Contains(HasSubstr(".doUpdate("))));
  EXPECT_THAT(recording::texts(), Not(Contains(HasSubstr("Error : "))));
  EXPECT_THAT(recording::calls(),
              ElementsAre("LwipcEventDone(/tmp/.ignore_resume)", "device_power_lock_state(2, 70000)",
                          order[0] + ".allUpdateDone()", order[1] + ".allUpdateDone()",
                          "device_power_unlock_state(2)"));
  EXPECT_FALSE(exists(kList));
}

TEST_F(UpdateAll, TakesAThreadThatCannotBeStartedForARuntimeError) {
  const auto order = modules({{"liba", 30, 1}});
  faults::failThreads = true;

  EXPECT_EQ(registry().doUpdateFirmwareAll(CALLER_QUERY), 0);

  EXPECT_THAT(recording::messages(),
              Contains(said("doUpdateFirmwareAll", "Error : Resource temporarily unavailable")));
  EXPECT_EQ(recording::calls().back(), "device_power_unlock_state(2)");
}

TEST_F(UpdateAll, EndsAtOnceWithAnyOtherException) {
  modules({{"liba", 30, 1}, {"libb", 30, 1}});
  writeFile(kList, "pending\n");
  recording::onMessage([](const recording::LogLine& line) {
    if (line.text.find(" update time ") != std::string::npos && line.function == "update_timeout_wrapper") {
      throw std::logic_error("the platform's log broke");
    }
  });

  EXPECT_THROW(registry().doUpdateFirmwareAll(CALLER_QUERY), std::logic_error);

  EXPECT_EQ(recording::calls().back(), "device_power_lock_state(2, 70000)") << "held until its time is over";
  EXPECT_THAT(recording::texts(), Not(Contains(HasSubstr("Error : "))));
  EXPECT_EQ(readFile(kList), "pending\n");
}

// ---- All updates done ---------------------------------------------------------------

TEST_F(UpdateAll, TellsEveryModuleThatTheUpdateIsOver) {
  const auto order = modules({{"liba", 30, 1}, {"libb", 30, 0}});
  scripted::module(order[0]).allUpdateDoneResult = -1;
  writeFile(kList, "kept");

  EXPECT_EQ(registry().allDoUpdateDone(), 0);

  EXPECT_THAT(recording::everything(),
              ElementsAre("log: Try allDoUpdateDone", order[0] + ".allUpdateDone()",
                          order[1] + ".allUpdateDone()", "log: allDoUpdateDone Done"));
  EXPECT_THAT(recording::messages(), ElementsAre(said("allDoUpdateDone", "Try allDoUpdateDone"),
                                                 said("allDoUpdateDone", "allDoUpdateDone Done")));
  EXPECT_THAT(recording::traceFormats(), ElementsAre("Try allDoUpdateDone", "allDoUpdateDone Done"));
  EXPECT_EQ(readFile(kList), "kept");
}

TEST_F(UpdateAll, TellsNoneOfAnEmptyRegistry) {
  EXPECT_EQ(registry().allDoUpdateDone(), 0);

  EXPECT_THAT(recording::everything(), ElementsAre("log: Try allDoUpdateDone", "log: allDoUpdateDone Done"));
}

// ---- Download all -------------------------------------------------------------------

TEST_F(UpdateAll, RequestsEveryPackage) {
  const auto order = modules({{"liba", 30, 1}, {"libb", 30, 0}});

  EXPECT_EQ(registry().downloadEMPAll(), 0);

  EXPECT_THAT(recording::everything(), ElementsAre("ABM_DownloadAppBinary(null, null, emp" + order[0] + ")",
                                                   "log: Request (emp" + order[0] + ") emp download",
                                                   "ABM_DownloadAppBinary(null, null, emp" + order[1] + ")",
                                                   "log: Request (emp" + order[1] + ") emp download"));
}

TEST_F(UpdateAll, RequestsTheNextPackageAfterARefusal) {
  const auto order = modules({{"liba", 30, 1}, {"libb", 30, 1}});
  recording::answers().downloadAccepted = false;

  EXPECT_EQ(registry().downloadEMPAll(), 0);

  EXPECT_THAT(recording::calls(), ElementsAre("ABM_DownloadAppBinary(null, null, emp" + order[0] + ")",
                                              "ABM_DownloadAppBinary(null, null, emp" + order[1] + ")"));
}

TEST_F(UpdateAll, RequestsNothingForModulesWithoutAPackage) {
  scripted::installModule("libEXT-abc");
  writeFile(std::string(kControls) + "libbroken.so", "no library");
  registry().onCreate(false);
  recording::reset();

  EXPECT_EQ(registry().downloadEMPAll(), 0);

  EXPECT_THAT(recording::everything(), IsEmpty());
}
