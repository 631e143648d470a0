// SPDX-License-Identifier: Apache-2.0
// Whole runs of the command with real packages, mounts and modules, and with a
// stand-in for systemd-logind on a bus of the test's own.
#include <fcntl.h>
#include <semaphore.h>
#include <sys/file.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <ostream>
#include <sstream>
#include <stdexcept>
#include <system_error>

#include "child-process.h"
#include "image-information.h"
#include "lwipc.h"
#include "package-image.h"
#include "system-bus.h"
#include "tool-test.h"

namespace {

using ::testing::AllOf;
using ::testing::AnyOf;
using ::testing::ElementsAre;
using ::testing::ElementsAreArray;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;
using ::testing::SizeIs;

namespace fs = std::filesystem;

const std::string kPackages = "/opt/usr/apps/appbinarymanager/";
const std::string kState = "/var/lib/fw-components/";
constexpr const char* kList = "/tmp/fwupdate-off-list.txt";
constexpr const char* kCalls = "/var/lib/fw-components/calls";
constexpr const char* kTornDown = "/var/lib/fw-components/torn-down";
constexpr const char* kPlatformCalls = "/var/lib/fw-components/platform-calls";

std::vector<std::string> linesOf(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream stream(text);
  for (std::string line; std::getline(stream, line);) {
    lines.push_back(line);
  }
  return lines;
}

class UpdateAll : public ToolTest {
 protected:
  void SetUp() override {
    ToolTest::SetUp();
    setenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/run/no-bus-here", 1);
  }

  // A module with its extension package, version 2.0.
  static void install(const std::string& name, const std::string& behaviour = "",
                      const std::string& expectedTime = "0") {
    fs::copy_file(FLEET_MODULE, kControls + ("lib" + name + ".so"));
    if (!behaviour.empty()) {
      writeFile(kState + name, behaviour);
    }
    const std::string content = "firmware of " + name;
    writeFile("/tmp/tree/" + name + ".bin", content);
    writeFile("/tmp/tree/info.json",
              "{\"version\": \"2.0\", \"crc\": " + std::to_string(image::crcOf(content)) +
                  ", \"expected_time\": " + expectedTime + "}");
    sandbox::packFolder("/tmp/tree", kPackages + name + "emp.img");
    fs::remove_all("/tmp/tree");
  }

  static Launch recorded() {
    return {{"LD_PRELOAD=" PLATFORM_RECORDER, std::string("PLATFORM_CALLS=") + kPlatformCalls}, true, 0};
  }

  static std::string mounts() { return readFile("/proc/self/mounts"); }
};

const Json::Value& moduleNamed(const Json::Value& document, const std::string& library) {
  for (const Json::Value& module : document["modules"]) {
    if (module["library"] == library) {
      return module;
    }
  }
  return Json::Value::nullSingleton();
}

TEST_F(UpdateAll, UpdatesWhatNeedsItInsideThePowerLock) {
  install("one", "", "30");
  install("two", "", "60");
  install("current");
  writeFile(kState + "current.version", "2.0");

  const Json::Value ended = document({"update-all"}, recorded());

  EXPECT_EQ(ended["outcome"].asString(), "updated");
  EXPECT_EQ(moduleNamed(ended, "libone")["versionAfter"].asString(), "2.0");
  EXPECT_EQ(moduleNamed(ended, "libtwo")["outcome"].asString(), "updated");
  EXPECT_FALSE(moduleNamed(ended, "libcurrent")["due"].asBool());
  EXPECT_THAT(linesOf(readFile(kPlatformCalls)),
              ElementsAre("event /tmp/.ignore_resume", "lock 2 100000", "unlock 2"));
  EXPECT_FALSE(exists(kList));
  EXPECT_EQ(LwipcEventWait("/tmp/.ignore_resume", 0), 0);
}

TEST_F(UpdateAll, IsInTheHistoryModuleByModule) {
  install("one", "", "30");
  install("two", "fail", "30");

  const Json::Value ended = document({"update-all"});

  const Json::Value entries = document({"history"})["entries"];
  ASSERT_EQ(entries.size(), 3u);
  EXPECT_EQ(entries[0]["way"].asString(), "update-all");
  EXPECT_EQ(entries[0]["outcome"].asString(), ended["outcome"].asString());
  for (const Json::Value& entry : {entries[1], entries[2]}) {
    const Json::Value& told = moduleNamed(ended, entry["module"].asString());
    EXPECT_EQ(entry["run"].asInt(), 1);
    EXPECT_EQ(entry["outcome"].asString(), told["outcome"].asString());
    EXPECT_EQ(entry["sentence"].asString(), told["message"].asString());
    EXPECT_EQ(entry["versionAfter"].asString(), told["versionAfter"].asString());
    EXPECT_EQ(entry["source"].asString(), "extension package");
    EXPECT_EQ(entry["image"].asString(), kPackages + entry["module"].asString().substr(3) + "emp.img");
  }
}

TEST_F(UpdateAll, GivesEveryModuleTheQueryingCallerAndNoData) {
  install("one", "", "5");

  ASSERT_EQ(run({"update-all"}).exitCode, 0);

  EXPECT_THAT(linesOf(readFile(kCalls)), ElementsAre("one update 2\"\"", "one done"));
}

TEST_F(UpdateAll, FiftyModulesWithFailingAndHangingOnes) {
  constexpr int kCount = 50;
  const auto behaviourOf = [](int i) {
    return i % 10 == 3 ? "fail" : i == 7 || i == 21 ? "late" : i == 30 ? "throw" : "";
  };
  for (int i = 0; i < kCount; ++i) {
    install("m" + std::to_string(i), behaviourOf(i), i == 7 || i == 21 ? "0" : "20");
  }
  const SystemBus bus;
  const LogindStandIn logind(bus);

  const Json::Value ended = document({"update-all"}, recorded());

  for (int i = 0; i < kCount; ++i) {
    const std::string behaviour = behaviourOf(i);
    const std::string outcome = behaviour.empty()     ? "updated"
                                : behaviour == "late" ? "timed-out"
                                                      : "module-failed";
    EXPECT_EQ(moduleNamed(ended, "libm" + std::to_string(i))["outcome"].asString(), outcome) << i;
    EXPECT_EQ(exists(kState + "m" + std::to_string(i) + ".version"), behaviour.empty()) << i;
    EXPECT_THAT(readFile(kCalls), HasSubstr("m" + std::to_string(i) + " done\n"));
  }
  EXPECT_EQ(ended["exitCode"].asInt(), 6);
  EXPECT_THAT(linesOf(readFile(kPlatformCalls)),
              ElementsAre("event /tmp/.ignore_resume", "lock 2 1210000", "unlock 2"));
  EXPECT_FALSE(exists(kList));
  EXPECT_TRUE(logind.waitForInhibitors(0));
}

// A run asks every module anew, and one may answer otherwise than it did for the plan.
struct LaterAnswer {
  const char* behaviour;
  const char* outcome;
  const char* message;

  friend void PrintTo(const LaterAnswer& value, std::ostream* out) { *out << value.behaviour; }
};

class ChangedMind : public UpdateAll, public ::testing::WithParamInterface<LaterAnswer> {
 protected:
  // In the order in which the library keeps them.
  static std::vector<std::string> installThree() {
    for (const char* name : {"one", "two", "three"}) {
      install(name, "", "20");
    }
    std::vector<std::string> libraries;
    const Json::Value list = document({"list"});
    for (const Json::Value& module : list["modules"]) {
      libraries.push_back(module["library"].asString());
    }
    return libraries;
  }

  static void behave(const std::string& library, const std::string& behaviour) {
    writeFile(kState + library.substr(3), behaviour);
  }

  static std::vector<std::string> modulesThatEnded(const std::vector<Json::Value>& events) {
    std::vector<std::string> libraries;
    for (const Json::Value& event : events) {
      if (event["event"] == "module-end") {
        libraries.push_back(event["module"].asString());
      }
    }
    return libraries;
  }
};
INSTANTIATE_TEST_SUITE_P(Answers, ChangedMind,
                         ::testing::Values(LaterAnswer{"needed-later", "updated", "was updated"},
                                           LaterAnswer{"needed-once", "module-failed",
                                                       "could not compare its version"}));

TEST_P(ChangedMind, LeavesTheOthersTheirOwnNames) {
  const std::vector<std::string> libraries = installThree();
  behave(libraries[0], GetParam().behaviour);
  behave(libraries[1], "fail");

  const std::vector<Json::Value> events = lines(run({"update-all", "--progress", "ndjson"}).out);

  const Json::Value& result = events.back();
  EXPECT_EQ(result["modules"].size(), 3u);
  EXPECT_EQ(moduleNamed(result, libraries[0])["outcome"].asString(), GetParam().outcome);
  EXPECT_THAT(moduleNamed(result, libraries[0])["message"].asString(), HasSubstr(GetParam().message));
  EXPECT_EQ(moduleNamed(result, libraries[1])["outcome"].asString(), "module-failed");
  EXPECT_EQ(moduleNamed(result, libraries[2])["outcome"].asString(), "updated");
  EXPECT_THAT(modulesThatEnded(events), ElementsAreArray(libraries));
}

// The library lets one update of a process at a time into a module.
TEST_F(UpdateAll, EndsAlsoWhenAModuleNeverComesBack) {
  install("one", "hang", "0");
  install("two", "hang", "0");

  const Json::Value ended = document({"update-all"}, recorded());

  EXPECT_EQ(ended["outcome"].asString(), "timed-out");
  const std::string calls = readFile(kCalls);
  EXPECT_THAT(calls, AllOf(HasSubstr("one done\n"), HasSubstr("two done\n")));
  const std::string first = ended["modules"][0]["library"].asString();
  EXPECT_THAT(ended["modules"][1]["message"].asString(), HasSubstr(first + " still runs"));
  EXPECT_THAT(linesOf(readFile(kPlatformCalls)),
              ElementsAre("event /tmp/.ignore_resume", "lock 2 10000", "unlock 2"));
}

TEST_F(UpdateAll, TearsDownNothingUnderAModuleThatStillRuns) {
  install("one");
  document({"update-all"});
  EXPECT_EQ(readFile(kTornDown), "one\n");

  fs::remove(kTornDown);
  fs::remove(kControls + std::string("libone.so"));
  install("two", "hang", "0");

  EXPECT_EQ(document({"update-all"})["outcome"].asString(), "timed-out");
  EXPECT_FALSE(exists(kTornDown));
}

TEST_F(UpdateAll, IsSeenOnTheBusDuringTheRunAndGoneAfterASigkill) {
  install("stuck", "hang", "600");
  const SystemBus bus;
  const LogindStandIn logind(bus);
  RunningTool tool({"update-all", "--progress", "ndjson"}, {{"FW_UPDATE_LOG=none"}, true, 0});
  tool.waitFor("module-start");

  EXPECT_THAT(logind.inhibitors(), SizeIs(1));
  tool.kill(SIGKILL);
  tool.finish();

  EXPECT_TRUE(logind.waitForInhibitors(0));
  const Ended next = run({"list"});
  EXPECT_EQ(next.exitCode, 0);
  EXPECT_THAT(next.err,
              AllOf(HasSubstr("interrupted at libstuck (1 of 1)"), HasSubstr("fw-update lock recover")));
  EXPECT_EQ(run({"list"}).err, "");
}

TEST_F(UpdateAll, NamesWhatItWouldHaveUpdatedWhenItIsKilledBeforeItsFirstModule) {
  install("one");
  install("two");
  const SystemBus bus;
  const LogindStandIn logind(bus);
  logind.stop();  // the run waits for its power lock
  RunningTool tool({"update-all", "--progress", "ndjson"}, {{"FW_UPDATE_LOG=none"}, true, 0});
  tool.waitFor("\"event\":\"start\"");

  tool.kill(SIGKILL);
  tool.finish();

  EXPECT_THAT(run({"list"}).err,
              AllOf(HasSubstr("The last update-all was interrupted before its first module. Not updated, or "
                              "not for certain: "),
                    AnyOf(HasSubstr(": libone, libtwo."), HasSubstr(": libtwo, libone."))));
}

TEST_F(UpdateAll, FirstCtrlCLetsTheRunGoOn) {
  install("stuck", "late", "0");
  install("zlast", "", "20");
  RunningTool tool({"update-all", "--progress", "ndjson"}, {{"FW_UPDATE_LOG=none"}, true, 0});
  tool.waitFor("module-start");

  tool.kill(SIGINT);
  tool.waitFor("goes-on");

  EXPECT_EQ(tool.finish(), 7);
  EXPECT_THAT(tool.out(), AllOf(HasSubstr("\"modulesLeft\":"), HasSubstr("1 of 2 modules were updated")));
  EXPECT_THAT(readFile(kCalls), HasSubstr("stuck done"));
  EXPECT_EQ(run({"list"}).err, "");
}

TEST_F(UpdateAll, SecondCtrlCEndsAtOnceAndTheNextCommandSaysSo) {
  install("stuck", "hang", "600");
  const SystemBus bus;
  const LogindStandIn logind(bus);
  RunningTool tool({"update-all", "--progress", "ndjson"}, {{"FW_UPDATE_LOG=none"}, true, 0});
  tool.waitFor("module-start");
  tool.waitFor("\"event\":\"progress\"");
  tool.kill(SIGINT);
  tool.waitFor("goes-on");

  tool.kill(SIGINT);

  EXPECT_EQ(tool.finish(), -SIGINT);
  EXPECT_TRUE(logind.waitForInhibitors(0));
  const Json::Value next = document({"list"});
  EXPECT_THAT(next["interruptedRun"]["message"].asString(), HasSubstr("libstuck"));
  EXPECT_THAT(next["interruptedRun"]["remedy"].asString(), Not(HasSubstr("SEM_UPDATE_CONTROL")));
  EXPECT_FALSE(document({"list"}).isMember("interruptedRun"));
}

TEST_F(UpdateAll, RefusesASecondRunBesideTheFirst) {
  install("stuck", "hang", "600");
  RunningTool tool({"update-all", "--progress", "ndjson"}, {{"FW_UPDATE_LOG=none"}, true, 0});
  tool.waitFor("module-start");

  const Json::Value second = document({"update-all"});

  EXPECT_EQ(second["outcome"].asString(), "already-running");
  EXPECT_FALSE(second.isMember("interruptedRun"));
}

TEST_F(UpdateAll, DryRunSaysWhatWouldRunAndChangesNothing) {
  install("one", "", "30");
  install("two", "", "60");
  const std::string mountsBefore = mounts();

  const Json::Value plan = document({"update-all", "--dry-run"}, recorded());

  EXPECT_EQ(plan["outcome"].asString(), "ok");
  EXPECT_EQ(plan["powerHoldMs"].asInt(), 100000);
  EXPECT_EQ(plan["expectedSeconds"].asDouble(), 90);
  EXPECT_TRUE(moduleNamed(plan, "libone")["due"].asBool());
  EXPECT_FALSE(exists(kCalls));
  EXPECT_FALSE(exists(kPlatformCalls));
  EXPECT_FALSE(exists(kList));
  EXPECT_EQ(mounts(), mountsBefore);
  EXPECT_TRUE(fs::is_empty(kPackages + "emps"));
}

TEST_F(UpdateAll, SaysSoWhenNothingNeedsAnUpdate) {
  install("current");
  writeFile(kState + "current.version", "2.0");
  writeFile(kList, "as before\n");

  const Json::Value ended = document({"update-all"}, recorded());

  EXPECT_EQ(ended["exitCode"].asInt(), 3);
  EXPECT_FALSE(exists(kPlatformCalls));
  EXPECT_EQ(readFile(kList), "as before\n");
}

struct AbsurdExpectation {
  const char* time;
  const char* lock;

  friend void PrintTo(const AbsurdExpectation& value, std::ostream* out) { *out << value.time; }
};

class AbsurdExpectedTime : public UpdateAll, public ::testing::WithParamInterface<AbsurdExpectation> {};
INSTANTIATE_TEST_SUITE_P(Values, AbsurdExpectedTime,
                         ::testing::Values(AbsurdExpectation{"0", "lock 2 5000"},
                                           AbsurdExpectation{"3000000", "lock 2 -1294962296"},
                                           AbsurdExpectation{"4294967295", "lock 2 4000"}));

TEST_P(AbsurdExpectedTime, EndsTheRunAndReleasesThePower) {
  install("odd", "", GetParam().time);
  const SystemBus bus;
  const LogindStandIn logind(bus);

  const Ended ended = run({"update-all"}, recorded());

  EXPECT_EQ(ended.exitCode, 0) << ended.out << ended.err;
  EXPECT_THAT(linesOf(readFile(kPlatformCalls)),
              ElementsAre("event /tmp/.ignore_resume", GetParam().lock, "unlock 2"));
  EXPECT_TRUE(logind.waitForInhibitors(0));
}

TEST_F(UpdateAll, GoesOnWithALinkAtTheListsPathAndLeavesItsTargetAlone) {
  install("one", "", "5");
  writeFile("/tmp/target", "kept");
  fs::create_symlink("/tmp/target", kList);

  const Json::Value ended = document({"update-all"});

  EXPECT_EQ(ended["outcome"].asString(), "updated");
  EXPECT_THAT(ended["warning"].asString(), HasSubstr(kList));
  EXPECT_EQ(readFile("/tmp/target"), "kept");
}

TEST_F(UpdateAll, ShowsTheListFirstAndATableAtTheEnd) {
  install("one", "", "30");

  const Ended ended = run({"update-all"});

  EXPECT_EQ(ended.exitCode, 0);
  EXPECT_THAT(ended.out, AllOf(HasSubstr("libone   one       1.0      30 s      yes"),
                               HasSubstr("1 module, about 30 s; power is held for at most 35 s."),
                               HasSubstr("1.0 -> 2.0"), HasSubstr("1 of 1 modules were updated")));
}

TEST_F(UpdateAll, BeginsNoRunWhenAModuleThrewWhileThePlanWasMade) {
  install("one");
  install("two", "throw-check");
  install("three");  // in whatever order they are, one comes before it

  const Json::Value ended = document({"update-all"});

  EXPECT_EQ(ended["outcome"].asString(), "module-failed");
  EXPECT_EQ(ended["message"].asString(), "libtwo broke off with an error of its own: no answer.");
  EXPECT_FALSE(exists(kCalls));
  const Ended shown = run({"update-all"});
  EXPECT_EQ(shown.out, "");  // half of a plan is none
  EXPECT_THAT(shown.err, HasSubstr("no answer"));
}

TEST_F(UpdateAll, SaysThatAModuleBrokeOffTheRun) {
  install("one", "throw-end");

  const Json::Value ended = document({"update-all"});

  EXPECT_EQ(ended["outcome"].asString(), "module-failed");
  EXPECT_EQ(ended["message"].asString(),
            "A module broke off the run with an error of its own: flash controller lost.");
  EXPECT_EQ(ended["remedy"].asString(),
            "The modules after it were not updated, and the modules were not told that the run is over: "
            "fw-update all-done does that.");
}

TEST_F(UpdateAll, AllDoneSaysThatAModuleBrokeItOff) {
  install("one", "throw-end");

  const Json::Value ended = document({"all-done"});

  EXPECT_EQ(ended["outcome"].asString(), "module-failed");
  EXPECT_EQ(ended["message"].asString(),
            "A module broke off with an error of its own: flash controller lost. "
            "The modules after it were not told.");
  EXPECT_EQ(ended["modules"].asInt(), 1);
}

class PendingList : public UpdateAll {};

TEST_F(PendingList, SaysThatItIsIncompleteWhenAModuleThrew) {
  install("one", "throw-check");

  const Json::Value ended = document({"pending-list"});

  EXPECT_EQ(ended["outcome"].asString(), "module-failed");
  EXPECT_EQ(ended["message"].asString(),
            "A module broke off with an error of its own: no answer. The list is incomplete.");
}

TEST_F(PendingList, WritesTheFileAndShowsIt) {
  install("one");
  install("current");
  writeFile(kState + "current.version", "2.0");

  const Json::Value ended = document({"pending-list"});

  EXPECT_EQ(ended["exitCode"].asInt(), 0);
  EXPECT_EQ(readFile(kList), "libone oneemp\n");
  ASSERT_EQ(ended["modules"].size(), 1U);
  EXPECT_EQ(ended["modules"][0]["package"].asString(), "oneemp");
}

TEST_F(PendingList, SaysThatItIsEmptyAndShowsNoTable) {
  install("current");
  writeFile(kState + "current.version", "2.0");

  EXPECT_EQ(run({"pending-list"}).out, "No module needs an update; /tmp/fwupdate-off-list.txt is empty.\n");
}

TEST_F(PendingList, RefusesALinkAndLeavesItAlone) {
  install("one");
  fs::create_symlink("/tmp/nowhere", kList);

  const Json::Value ended = document({"pending-list"});

  EXPECT_EQ(ended["outcome"].asString(), "not-permitted");
  EXPECT_TRUE(fs::is_symlink(kList));
  EXPECT_FALSE(exists("/tmp/nowhere"));
}

TEST_F(PendingList, NoticesThatTheFileCouldNotBeWritten) {
  install("one");
  fs::create_directory(kList);

  const Json::Value ended = document({"pending-list"});

  EXPECT_EQ(ended["exitCode"].asInt(), 1);
  EXPECT_THAT(ended["message"].asString(), HasSubstr("could not be written"));
}

TEST_F(UpdateAll, AllDoneTellsEveryModule) {
  install("one");
  install("two");

  EXPECT_EQ(document({"all-done"})["exitCode"].asInt(), 0);

  EXPECT_THAT(readFile(kCalls), AllOf(HasSubstr("one done\n"), HasSubstr("two done\n")));
}

TEST_F(UpdateAll, IsolatedUpdatesAllAsInOneProcess) {
  install("one");
  install("two");

  const Json::Value ended = document({"update-all", "--isolated"});

  EXPECT_EQ(ended["outcome"].asString(), "updated");
  EXPECT_EQ(ended["modules"].size(), 2u);
}

TEST_F(UpdateAll, IsolatedNamesTheModuleThatCrashedAndCleansUpAfterIt) {
  install("one", "crash", "30");
  const SystemBus bus;
  const LogindStandIn logind(bus);

  const Json::Value ended = document({"update-all", "--isolated"});

  EXPECT_EQ(ended["exitCode"].asInt(), 13);
  EXPECT_EQ(ended["module"].asString(), "libone");
  EXPECT_EQ(ended["step"].asString(), "write");
  EXPECT_EQ(ended["lock"].asString(), "given-back");
  EXPECT_EQ(ended["unmounted"][0].asString(), kPackages + "emps/oneemp");
  EXPECT_THAT(ended["remedy"].asString(), HasSubstr("run it again for what is left"));
  EXPECT_THAT(mounts(), Not(HasSubstr("oneemp")));
  EXPECT_TRUE(logind.waitForInhibitors(0));
  EXPECT_EQ(run({"list"}).err, "") << "it was told already";
}

// ---- What belongs to others ------------------------------------------------------

// Something that somebody else has mounted where a module's package goes.
class MountedByOthers {
 public:
  explicit MountedByOthers(const std::string& package) : directory_(kPackages + "emps/" + package) {
    fs::create_directories(directory_);
    if (mount("others", directory_.c_str(), "tmpfs", 0, nullptr) != 0) {
      throw std::system_error(errno, std::generic_category(), "mount");
    }
  }
  MountedByOthers(const MountedByOthers&) = delete;
  MountedByOthers& operator=(const MountedByOthers&) = delete;
  ~MountedByOthers() {
    while (umount(directory_.c_str()) == 0) {
    }
  }

 private:
  const std::string directory_;
};

TEST_F(UpdateAll, DryRunLeavesMountedWhatWasMounted) {
  install("one");
  const MountedByOthers package("oneemp");

  EXPECT_EQ(document({"update-all", "--dry-run"})["exitCode"].asInt(), 0);

  EXPECT_THAT(mounts(), HasSubstr("oneemp"));
}

TEST_F(UpdateAll, IsolatedLeavesMountedWhatWasMountedBefore) {
  install("one", "crash", "30");
  const MountedByOthers package("oneemp");

  const Json::Value ended = document({"update-all", "--isolated"});

  EXPECT_EQ(ended["exitCode"].asInt(), 13);
  EXPECT_TRUE(ended["unmounted"].empty());
  EXPECT_THAT(mounts(), HasSubstr("oneemp"));
}

TEST_F(UpdateAll, IsolatedLeavesMountedWhatAnotherUpdateMayUse) {
  install("one", "crash", "30");
  const ChildProcess other([] {
    sem_open("/SEM_UPDATE_CONTROL", O_CREAT, 0600, 1);
    pause();
    return 0;
  });
  while (document({"lock", "status"})["processes"].empty()) {
  }

  const Json::Value ended = document({"update-all", "--isolated"});

  EXPECT_EQ(ended["exitCode"].asInt(), 13);
  EXPECT_TRUE(ended["unmounted"].empty());
  EXPECT_THAT(mounts(), HasSubstr("oneemp"));
}

// ---- The note of a run -----------------------------------------------------------

TEST_F(UpdateAll, BelievesNoNoteWhereOthersMayWrite) {
  writeFile("/run/fw-update/update-all.lock", "");
  writeFile("/run/fw-update/update-all.json", R"({"number": 1, "modules": ["libforged"]})");
  fs::permissions("/run/fw-update", fs::perms::all);
  EXPECT_FALSE(document({"list"}).isMember("interruptedRun"));
  fs::permissions("/run/fw-update", fs::perms(0755));

  EXPECT_THAT(document({"list"})["interruptedRun"]["message"].asString(), HasSubstr("libforged"));
}

TEST_F(UpdateAll, LeavesTheNoteOfARunThatIsUnderWay) {
  writeFile("/run/fw-update/update-all.lock", "");
  writeFile("/run/fw-update/update-all.json", R"({"number": 1, "modules": ["libother"]})");
  const int lock = open("/run/fw-update/update-all.lock", O_RDWR | O_CLOEXEC);
  ASSERT_EQ(flock(lock, LOCK_EX), 0);

  const bool told = document({"list"}).isMember("interruptedRun");

  EXPECT_FALSE(told);
  EXPECT_TRUE(fs::exists("/run/fw-update/update-all.json"));
  close(lock);
}

TEST_F(UpdateAll, TellsNothingOfANoteThatIsNoFile) {
  writeFile("/run/fw-update/update-all.lock", "");
  ASSERT_EQ(mkfifo("/run/fw-update/update-all.json", 0644), 0);

  const bool told = document({"list"}).isMember("interruptedRun");

  EXPECT_FALSE(told);
  EXPECT_FALSE(fs::exists("/run/fw-update/update-all.json"));
}

TEST_F(UpdateAll, KeepsOtherUsersFromTheFileThatRunsLock) {
  writeFile("/run/fw-update/update-all.lock", "");
  fs::permissions("/run/fw-update/update-all.lock", fs::perms(0666));
  install("one");

  run({"update-all"});

  EXPECT_EQ(fs::status("/run/fw-update/update-all.lock").permissions(), fs::perms(0600));
}

// Asking a module mounts its package anew.
TEST_F(UpdateAll, AsksNoModuleBesideAnotherRun) {
  install("one");
  writeFile("/run/fw-update/update-all.lock", "");
  const int lock = open("/run/fw-update/update-all.lock", O_RDWR | O_CLOEXEC);
  ASSERT_EQ(flock(lock, LOCK_EX), 0);

  RunningTool second({"update-all", "--log"}, {});

  EXPECT_EQ(second.finish(), 1);
  EXPECT_THAT(second.err(), AllOf(HasSubstr("Another update-all is running."), HasSubstr("SWModel"),
                                  Not(HasSubstr("PsMntCmd"))));
  close(lock);
}

}  // namespace
