// SPDX-License-Identifier: Apache-2.0
// The fw-platform-check command: it finds the platform of ordinary Linux whole, and
// each broken promise of one that is not.
#include <dlfcn.h>
#include <fcntl.h>
#include <json/json.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <optional>
#include <ostream>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "device-environment.h"
#include "dlog.h"
#include "running-program.h"
#include "signed-package.h"
#include "system-bus.h"
#include "temporary-mount.h"

namespace {

namespace fs = std::filesystem;

constexpr uid_t kNobody = 65534;

class PlatformCheck : public DeviceTest {
 protected:
  void SetUp() override {
    DeviceTest::SetUp();
    fs::create_directories("/opt/usr/apps/appbinarymanager/emps");
  }

  static void installVerifier() { fs::copy_file(VERIFIER, "/usr/lib/libkZAQUser.so"); }

  static ProgramResult check(const std::vector<std::string>& arguments, const std::string& fault = "") {
    std::vector<std::string> command = {PLATFORM_CHECK_PROGRAM};
    command.insert(command.end(), arguments.begin(), arguments.end());
    return runProgram({command, "/", 0, {"FW_FAULT=" + fault, "FW_UPDATE_LOG=none"}});
  }

  static bool isThereNobody() {
    writeFile("/tmp/of-nobody", "");
    return chown("/tmp/of-nobody", kNobody, kNobody) == 0;
  }

  static ProgramResult checkAsNobody(const std::vector<std::string>& arguments,
                                     const std::string& fault = "") {
    std::vector<std::string> command = {PLATFORM_CHECK_PROGRAM};
    command.insert(command.end(), arguments.begin(), arguments.end());
    return runProgram({command, "/", kNobody, {"FW_FAULT=" + fault, "FW_UPDATE_LOG=none"}});
  }
};

TEST_F(PlatformCheck, FindsThePlatformOfOrdinaryLinuxWhole) {
  installVerifier();

  const ProgramResult result = check({});

  EXPECT_EQ(result.exitCode, 0) << result.output;
  EXPECT_NE(result.output.find(" 0 broken"), std::string::npos) << result.output;
}

TEST_F(PlatformCheck, NamesTheCallsThatALibraryLacks) {
  const ProgramResult result = check({"--library", INCOMPLETE_PLATFORM});

  EXPECT_EQ(result.exitCode, 1) << result.output << result.error;
  EXPECT_NE(result.output.find("library   BROKEN       has every call of the platform"), std::string::npos)
      << result.output;
  EXPECT_NE(result.output.find("it lacks "), std::string::npos) << result.output;
  EXPECT_NE(result.output.find("PS_Mount"), std::string::npos) << result.output;
  EXPECT_NE(result.output.find("appbinaryManager::ABM_DownloadAppBinary,"), std::string::npos)
      << result.output;
  EXPECT_EQ(result.output.find("LwipcEventDone"), std::string::npos) << "it has this one";
  EXPECT_NE(result.output.find("0 kept, 1 broken, 0 not checked"), std::string::npos) << result.output;
  EXPECT_EQ(result.error, "");
}

TEST_F(PlatformCheck, TellsProgramsTooThatALibraryLacksCalls) {
  const ProgramResult result = check({"--library", INCOMPLETE_PLATFORM, "--only", "event", "--json"});

  std::istringstream text(result.output);
  Json::Value document;
  text >> document;
  EXPECT_EQ(result.exitCode, 1);
  EXPECT_EQ(document["checks"][0]["area"].asString(), "library");
  EXPECT_EQ(document["checks"][0]["verdict"].asString(), "broken");
  EXPECT_EQ(document["checks"].size(), 1U);
}

TEST_F(PlatformCheck, ChecksNothingWithAFileThatIsNoLibrary) {
  writeFile("/tmp/no-library.so", "text");

  const ProgramResult result = check({"--library", "/tmp/no-library.so", "--only", "event"});

  EXPECT_EQ(result.exitCode, 1) << result.output;
  EXPECT_NE(result.output.find("the loader cannot take it: object '/tmp/no-library.so'"), std::string::npos)
      << result.output;
}

TEST_F(PlatformCheck, ChecksPowerWhereItCanBeHeld) {
  const SystemBus bus;
  const LogindStandIn logind(bus);

  const ProgramResult result = check({"--only", "power"});

  EXPECT_NE(result.output.find("3 kept, 0 broken, 0 not checked"), std::string::npos) << result.output;
}

TEST_F(PlatformCheck, SaysThatNoServiceMountsForAUser) {
  if (!isThereNobody()) {
    GTEST_SKIP() << "there is no other user here";
  }

  const ProgramResult result = checkAsNobody({"--only", "mount"});

  EXPECT_NE(result.output.find("0 kept, 0 broken, 5 not checked\nnothing could be seen here of: mount\n"),
            std::string::npos)
      << result.output << result.error;
  EXPECT_NE(result.output.find(
                "no privileged service answers; start it: systemctl enable --now fw-privileged.socket"),
            std::string::npos)
      << result.output;
}

// Another failure of a mount says nothing of a service.
TEST_F(PlatformCheck, BlamesNoServiceForWhatIsNotDoneYet) {
  if (!isThereNobody()) {
    GTEST_SKIP() << "there is no other user here";
  }

  const ProgramResult result = checkAsNobody({"--only", "mount", "--library", SKELETON_PLATFORM});

  EXPECT_NE(result.output.find("refuses an image that is not there"), std::string::npos) << result.output;
  EXPECT_EQ(result.output.find("no privileged service answers"), std::string::npos) << result.output;
}

TEST_F(PlatformCheck, SaysThatTracesAreSwitchedOff) {
  const ProgramResult result = check({"--library", SKELETON_PLATFORM, "--only", "trace"});

  EXPECT_EQ(result.exitCode, 0) << result.error;
  EXPECT_NE(result.output.find("traces are switched off here"), std::string::npos) << result.output;
  EXPECT_NE(result.output.find("1 kept, 0 broken, 3 not checked"), std::string::npos) << result.output;
}

// A user without a service cannot mount, which is no fault of the platform's.
TEST_F(PlatformCheck, TakesOnlyAMissingServiceOfAUserForOne) {
  if (!isThereNobody()) {
    GTEST_SKIP() << "there is no other user here";
  }

  const ProgramResult refused =
      checkAsNobody({"--only", "mount", "--library", FAULTY_PLATFORM}, "service-refuses");
  const ProgramResult forbidden =
      checkAsNobody({"--only", "mount", "--library", FAULTY_PLATFORM}, "service-forbids");

  EXPECT_NE(refused.output.find("not checked  refuses an image that is not there\n"), std::string::npos)
      << refused.output << refused.error;
  EXPECT_NE(refused.output.find("no privileged service answers"), std::string::npos) << refused.output;
  EXPECT_NE(forbidden.output.find("kept         refuses an image that is not there\n"), std::string::npos)
      << forbidden.output << forbidden.error;
  EXPECT_EQ(forbidden.output.find("no privileged service answers"), std::string::npos) << forbidden.output;
}

TEST_F(PlatformCheck, NeedsNoServiceAsRoot) {
  const ProgramResult result = check({"--library", FAULTY_PLATFORM, "--only", "mount"}, "service-is-missing");

  EXPECT_NE(result.output.find("kept         refuses an image that is not there\n"), std::string::npos)
      << result.output;
  EXPECT_EQ(result.output.find("no privileged service answers"), std::string::npos) << result.output;
}

TEST_F(PlatformCheck, LooksAtNoUnmountWithoutAMount) {
  const ProgramResult result = check({"--library", FAULTY_PLATFORM, "--only", "mount"});

  EXPECT_NE(result.output.find("not checked  unmounts a directory that is given without a NUL\n" +
                               std::string(23, ' ') + "PS_Mount returned -38"),
            std::string::npos)
      << result.output;
  EXPECT_NE(result.output.find("not checked  detaches the loop device with the unmount\n" +
                               std::string(23, ' ') + "PS_Mount returned -38"),
            std::string::npos)
      << result.output;
}

TEST_F(PlatformCheck, DoesNotBlameThePlatformForANodeThatIsThere) {
  const TemporaryMount devices = TemporaryMount::memory("/dev");
  writeFile("/dev/loop0", "");

  const ProgramResult result = check({"--library", FAULTY_PLATFORM, "--only", "mount"});

  EXPECT_NE(result.output.find("not checked  takes the library's text for a loop node\n" +
                               std::string(23, ' ') + "/dev/loop0 is there, and the call returned -38\n"),
            std::string::npos)
      << result.output;
}

TEST_F(PlatformCheck, LetsAPlatformDropRecords) {
  const ProgramResult result = check({"--library", FAULTY_PLATFORM, "--only", "trace"}, "trace-drops");

  EXPECT_EQ(result.exitCode, 0) << result.output;
  EXPECT_NE(result.output.find("the record was dropped"), std::string::npos) << result.output;
  EXPECT_NE(result.output.find("3 kept, 0 broken, 1 not checked\n"), std::string::npos) << result.output;
}

TEST_F(PlatformCheck, LetsALogBeSwitchedOff) {
  const ProgramResult result = check({"--library", FAULTY_PLATFORM, "--only", "log"}, "log-off");

  EXPECT_EQ(result.exitCode, 0) << result.output;
  EXPECT_NE(result.output.find("6 kept, 0 broken, 0 not checked\n"), std::string::npos) << result.output;
}

TEST_F(PlatformCheck, NamesTheAreasOfWhichNothingIsSeen) {
  const ProgramResult result =
      check({"--library", FAULTY_PLATFORM, "--only", "power", "--json"}, "power-not-there");
  Json::Value document;
  std::istringstream(result.output) >> document;

  EXPECT_EQ(result.exitCode, 0);
  EXPECT_EQ(document["notChecked"], 3) << result.output;
  ASSERT_EQ(document["unseen"].size(), 1U) << result.output;
  EXPECT_EQ(document["unseen"][0], "power");
  for (const Json::Value& one : document["checks"]) {
    EXPECT_EQ(one["sentence"], "nothing here can hold the power (-19)");
  }
}

TEST_F(PlatformCheck, LeavesNoPackageBehind) {
  check({"--only", "mount"});

  EXPECT_TRUE(fs::is_empty("/opt/usr/apps/appbinarymanager/emps"));
  EXPECT_EQ(std::distance(fs::directory_iterator("/opt/usr/apps/appbinarymanager"), {}), 1);
  for (const auto& entry : fs::directory_iterator("/tmp")) {
    EXPECT_EQ(entry.path().filename().string().find("platformcheck"), std::string::npos) << entry;
  }
}

constexpr char kGoOn[] = "/tmp/go-on";  // of held-mount.cpp

// What the command leaves becomes this process's child.
class InterruptedPlatformCheck : public PlatformCheck, public ::testing::WithParamInterface<int> {
 protected:
  void SetUp() override {
    PlatformCheck::SetUp();
    prctl(PR_SET_CHILD_SUBREAPER, 1);
    ASSERT_EQ(mkfifo(kGoOn, 0600), 0);
  }

  // Until a check has made its package and is about to mount it.
  static void waitForTheMount() {
    while (!exists("/tmp/mounts")) {
      sched_yield();
    }
  }

  static void letTheMountGoOn() {
    const int pipe = open(kGoOn, O_RDWR | O_CLOEXEC);  // waits for nobody, should nobody read
    EXPECT_GE(pipe, 0);
    unlink(kGoOn);  // the mounts after it wait for nothing
    close(pipe);
  }

  static void expectNothingRuns() {
    EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);
    EXPECT_EQ(errno, ECHILD);
  }
};
INSTANTIATE_TEST_SUITE_P(BySignal, InterruptedPlatformCheck, ::testing::Values(SIGINT, SIGTERM, SIGHUP));

TEST_P(InterruptedPlatformCheck, LetsTheRunningCheckTidyUp) {
  RunningProgram program(
      {{PLATFORM_CHECK_PROGRAM, "--only", "mount", "--library", HELD_MOUNT}, "/", 0, {"FW_UPDATE_LOG=none"}});
  waitForTheMount();
  EXPECT_FALSE(fs::is_empty("/opt/usr/apps/appbinarymanager/emps"));

  program.kill(GetParam());
  letTheMountGoOn();

  EXPECT_EQ(program.wait().signal, GetParam());
  expectNothingRuns();
  EXPECT_TRUE(fs::is_empty("/opt/usr/apps/appbinarymanager/emps"));
  EXPECT_EQ(readFile("/proc/self/mountinfo").find("platformcheck"), std::string::npos);
}

TEST_P(InterruptedPlatformCheck, GoesOnWhereTheSignalIsIgnored) {
  const std::string ignoring = "trap '' " + std::to_string(GetParam()) + "; exec \"$@\"";
  RunningProgram program(
      {{"sh", "-c", ignoring, "sh", PLATFORM_CHECK_PROGRAM, "--only", "mount", "--library", HELD_MOUNT},
       "/",
       0,
       {"FW_UPDATE_LOG=none"}});
  waitForTheMount();

  program.kill(GetParam());
  letTheMountGoOn();

  const ProgramResult result = program.wait();
  EXPECT_EQ(result.signal, 0);
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_NE(result.output.find(" 0 broken"), std::string::npos) << result.output;
}

TEST_P(InterruptedPlatformCheck, EndsACheckThatHangsWithTheSecondSignal) {
  RunningProgram program(
      {{PLATFORM_CHECK_PROGRAM, "--only", "mount", "--timeout", "3600", "--library", FAULTY_PLATFORM},
       "/",
       0,
       {"FW_FAULT=mount-hangs", "FW_UPDATE_LOG=none"}});
  while (!exists("/tmp/hangs")) {
    sched_yield();
  }

  program.kill(GetParam());
  program.kill(GetParam() == SIGHUP ? SIGINT : SIGHUP);

  EXPECT_NE(program.wait().signal, 0);
  expectNothingRuns();
}

// Only the command waits for the running check's end.
TEST_P(InterruptedPlatformCheck, EndsACheckThatGetsTheSignalItself) {
  RunningProgram program({{PLATFORM_CHECK_PROGRAM, "--only", "mount", "--library", FAULTY_PLATFORM},
                          "/",
                          0,
                          {"FW_FAULT=mount-raises-" + std::to_string(GetParam()), "FW_UPDATE_LOG=none"}});

  const ProgramResult result = program.wait();

  EXPECT_NE(result.output.find("the process ended with \"" + std::string(strsignal(GetParam())) + "\""),
            std::string::npos)
      << result.output;
}

TEST_F(PlatformCheck, FindsMissingDirectories) {
  fs::remove("/opt/usr/apps/appbinarymanager/emps");
  fs::remove("/prd/usr/fwupdate/controls");

  const ProgramResult result = check({"--only", "system"});

  EXPECT_EQ(result.exitCode, 1);
  EXPECT_NE(result.output.find("BROKEN       has the directories that updates need"), std::string::npos)
      << result.output;
  EXPECT_NE(
      result.output.find("missing: /prd/usr/fwupdate/controls, /opt/usr/apps/appbinarymanager/emps; make"),
      std::string::npos)
      << result.output;
}

// mksquashfs is not there, and no other program.
TEST_F(PlatformCheck, NeedsNoOtherProgram) {
  const ProgramResult result = runProgram(
      {{PLATFORM_CHECK_PROGRAM, "--only", "mount"}, "/", 0, {"PATH=/nowhere", "FW_UPDATE_LOG=none"}});

  EXPECT_EQ(result.output.find("no package can be made"), std::string::npos) << result.output;
}

TEST_F(PlatformCheck, SaysWhatIsLeftToDoOfTheSkeleton) {
  const ProgramResult result = check({"--library", SKELETON_PLATFORM, "--json"});

  Json::Value document;
  std::istringstream(result.output) >> document;
  std::set<std::string> broken;
  std::set<std::string> kept;
  for (const Json::Value& one : document["checks"]) {
    (one["verdict"] == "broken" ? broken : kept).insert(one["area"].asString());
  }
  EXPECT_EQ(broken, (std::set<std::string>{"event", "mount", "verifier"})) << result.output;
  EXPECT_TRUE(kept.count("log") == 1 && kept.count("system") == 1 && kept.count("download") == 1);
}

TEST_F(PlatformCheck, FindsThatTheSkeletonWritesNothingForANullFormat) {
  void* const library = dlopen(SKELETON_PLATFORM, RTLD_NOW | RTLD_LOCAL);
  ASSERT_NE(library, nullptr) << dlerror();
  const auto print = reinterpret_cast<decltype(__dlog_print)*>(dlsym(library, "__dlog_print"));
  ASSERT_NE(print, nullptr) << dlerror();
  const char* volatile nothing = nullptr;  // not for the compiler to see
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-security"
  const int length = print(2, DLOG_DEBUG_PRIORITY, "FWUPDATE", nothing);
#pragma GCC diagnostic pop

  EXPECT_EQ(length, 0);
  dlclose(library);
}

TEST_F(PlatformCheck, FindsAMissingVerifier) {
  const ProgramResult result = check({"--only", "verifier"});

  EXPECT_EQ(result.exitCode, 1);
  EXPECT_NE(result.output.find("every package is taken"), std::string::npos) << result.output;
}

// The file system is gone from the directory, and still open.
TEST_F(PlatformCheck, FindsALoopDeviceThatIsLeft) {
  const ProgramResult result = check({"--library", FAULTY_PLATFORM, "--only", "mount"}, "unmount-keeps-loop");

  if (result.output.find("without a loop device that can be seen") != std::string::npos) {
    GTEST_SKIP() << "only root mounts with loop devices";
  }
  EXPECT_NE(result.output.find("BROKEN       detaches the loop device"), std::string::npos) << result.output;
  EXPECT_NE(result.output.find("the loop device still has the image"), std::string::npos) << result.output;
}

// A platform may start a program for a download, with the environment that it has itself.
TEST_F(PlatformCheck, LoadsTheLibraryIntoNoOtherProgram) {
  check({"--library", FAULTY_PLATFORM, "--only", "download"}, "download-starts-program");

  EXPECT_TRUE(exists("/tmp/program-was-started"));
  EXPECT_FALSE(exists("/tmp/loaded-elsewhere"));
}

TEST_F(PlatformCheck, RefusesWrongArguments) {
  for (const std::vector<std::string>& arguments :
       std::vector<std::vector<std::string>>{{"--only", "colours"},
                                             {"--library", "/nowhere.so"},
                                             {"--what"},
                                             {"there"},
                                             {"--only"},
                                             {"--timeout", "soon"},
                                             {"--timeout", "2s"},
                                             {"--timeout", "0"},
                                             {"--timeout", "3601"},
                                             {"--secure", "--only", "log"},
                                             {"--secure", "--library", "/nowhere.so"}}) {
    const ProgramResult result = check(arguments);
    EXPECT_EQ(result.exitCode, 2) << arguments[0];
    EXPECT_NE(result.error.find("--help"), std::string::npos) << arguments[0];
  }
}

TEST_F(PlatformCheck, AnswersWithOneDocument) {
  const ProgramResult whole = check({"--only", "system", "--json"});
  const ProgramResult wrong = check({"--only", "colours", "--json"});
  Json::Value found;
  Json::Value refused;
  std::istringstream(whole.output) >> found;
  std::istringstream(wrong.output) >> refused;

  EXPECT_EQ(whole.exitCode, 0);
  EXPECT_EQ(found["ok"], true);
  EXPECT_EQ(found["outcome"], "ok");
  EXPECT_EQ(found["kept"], 3);
  EXPECT_EQ(found["broken"], 0);
  EXPECT_EQ(found["notChecked"], 0);
  ASSERT_EQ(found["checks"].size(), 3U);
  EXPECT_EQ(found["checks"][0]["area"], "system");
  EXPECT_EQ(found["checks"][0]["verdict"], "kept");
  EXPECT_FALSE(found["checks"][0].isMember("sentence"));
  EXPECT_EQ(wrong.exitCode, 2);
  EXPECT_EQ(refused["outcome"], "usage");
  EXPECT_EQ(refused["remedy"], "Try: fw-platform-check --help");
}

TEST_F(PlatformCheck, NamesABrokenPromiseInTheDocument) {
  const ProgramResult result = check({"--library", FAULTY_PLATFORM, "--only", "log", "--json"}, "log-errno");
  Json::Value document;
  std::istringstream(result.output) >> document;

  EXPECT_EQ(result.exitCode, 1);
  EXPECT_EQ(document["outcome"], "broken");
  EXPECT_EQ(document["exitCode"], 1);
  EXPECT_EQ(document["ok"], false);
  EXPECT_EQ(document["broken"], 1);
  EXPECT_EQ(document["checks"][0]["promise"], "leaves errno as it was");
  EXPECT_EQ(document["checks"][0]["verdict"], "broken");
  EXPECT_NE(document["checks"][0]["sentence"], "");
}

// ---- A set that uses nothing unsigned ------------------------------------------------

// As root alone: in a user namespace, the host's directories belong to nobody.
class SecureSet : public PlatformCheck {
 protected:
  void SetUp() override {
    struct stat top = {};
    if (stat("/", &top) != 0 || top.st_uid != 0) {
      GTEST_SKIP() << "the directories that lead to the set's are not root's here";
    }
    PlatformCheck::SetUp();
    installVerifier();
    writeFile(kKey, publicPem(testSigningKey("ed25519")));
    writeFile(kPackageKey, std::string(32, 'k'));
    chmod(kPackageKey, 0600);
    writeFile(kConfiguration, "url = https://packages.example/\nallow_unsigned = false  # never\n");
    writeFile("/prd/usr/fwupdate/controls/libabc.so", "module");
    fs::create_directories(kDrive);
    drive_.emplace(TemporaryMount::memory(kDrive));
    mountDrive(MS_RDONLY | MS_NOSUID | MS_NODEV | MS_NOEXEC);
  }

  static void mountDrive(unsigned long flags) {
    ASSERT_EQ(mount(nullptr, kDrive, nullptr, MS_REMOUNT | MS_BIND | flags, nullptr), 0);
  }

  static void expectBroken(const std::string& promise, const std::string& sentence) {
    const ProgramResult result = check({"--secure"});
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_NE(result.output.find("BROKEN       " + promise), std::string::npos) << result.output;
    EXPECT_NE(result.output.find(sentence), std::string::npos) << result.output;
    EXPECT_NE(result.output.find(" 1 broken"), std::string::npos) << result.output;
  }

  static std::string identifier() {
    const fwpackage::KeyId id = testSigningKey("ed25519").keyId();
    return fwpackage::toHex(id.data(), id.size());
  }

  static constexpr const char* kKey = "/usr/share/fw-update/keys/maker.pem";
  static constexpr const char* kOldFormat = "/usr/share/fw-update/keys/format-1";
  static constexpr const char* kRevoked = "/usr/share/fw-update/keys/revoked";
  static constexpr const char* kPackageKey = "/usr/share/fw-update/package.key";
  static constexpr const char* kConfiguration = "/etc/fw-update/download.conf";
  static constexpr const char* kDrive = "/opt/media/USBDriveA";

 private:
  std::optional<TemporaryMount> drive_;
};

TEST_F(SecureSet, IsFoundWhole) {
  const ProgramResult result = check({"--secure"});

  EXPECT_EQ(result.exitCode, 0) << result.output;
  EXPECT_NE(result.output.find("8 kept, 0 broken, 1 not checked"), std::string::npos) << result.output;
}

TEST_F(SecureSet, HasAVerifier) {
  fs::remove("/usr/lib/libkZAQUser.so");

  const ProgramResult result = check({"--secure"});

  EXPECT_EQ(result.exitCode, 1);
  EXPECT_NE(result.output.find("BROKEN       refuses a package without a signature"), std::string::npos);
  EXPECT_NE(result.output.find("install it"), std::string::npos) << result.output;
}

TEST_F(SecureSet, HasAVerifierThatRefuses) {
  fs::remove("/usr/lib/libkZAQUser.so");
  fs::copy_file(FAULTY_PLATFORM, "/usr/lib/libkZAQUser.so");

  const ProgramResult result = check({"--secure"}, "verifier-takes-unsigned");

  EXPECT_EQ(result.exitCode, 1);
  EXPECT_NE(result.output.find("BROKEN       refuses a package without a signature"), std::string::npos);
  EXPECT_NE(result.output.find("has no beginContentCheck"), std::string::npos) << result.output;
}

TEST_F(SecureSet, HasAKey) {
  writeFile(kKey, "no key");
  expectBroken("knows the key of a maker", "install the maker's key there");

  fs::remove_all("/usr/share/fw-update/keys");
  expectBroken("knows the key of a maker", "install the maker's key there");
}

TEST_F(SecureSet, HasNoKeyForTheOldFormatUnlessItIsRevoked) {
  writeFile(kOldFormat, identifier() + "\n");
  expectBroken("takes no package that fits every component", "sign them anew and take it out of");

  writeFile(kRevoked, identifier() + "\n");
  EXPECT_EQ(check({"--secure"}).exitCode, 0);

  fs::remove(kRevoked);
  writeFile(kOldFormat, "# none\n0123456789abcdef\n");
  EXPECT_EQ(check({"--secure"}).exitCode, 0) << "nobody has this key";
}

TEST_F(SecureSet, HasListsThatCanBeUsed) {
  writeFile(kOldFormat, "what\n");
  expectBroken("takes no package that fits every component", "format-1 cannot be read or has a wrong line");

  fs::remove(kOldFormat);
  writeFile(kRevoked, "what\n");
  expectBroken("takes no package that fits every component", "revoked cannot be read or has a wrong line");
}

TEST_F(SecureSet, IsWrittenByRootAlone) {
  fs::create_directories("/var/lib/fw-update/minimum-versions");
  writeFile("/var/lib/fw-update/minimum-versions/abc", "1");
  writeFile("/opt/usr/share/sbox/abc/info.json", "{}");
  for (const char* path :
       {"/prd/usr/fwupdate/controls", "/prd/usr/fwupdate/controls/libabc.so", "/prd/usr/fwupdate",
        "/opt/usr/share/sbox", "/opt/usr/share/sbox/abc", "/opt/usr/apps/appbinarymanager",
        "/opt/usr/apps/appbinarymanager/emps", "/usr/share/fw-update/keys", kKey, "/usr/lib/libkZAQUser.so",
        "/var/lib/fw-update/minimum-versions", "/var/lib/fw-update/minimum-versions/abc", kConfiguration}) {
    struct stat before = {};
    ASSERT_EQ(stat(path, &before), 0) << path;

    chmod(path, before.st_mode | S_IWOTH);
    expectBroken("lets only root write", std::string(path) + " can be written by everybody; chown root");
    chmod(path, before.st_mode);

    ASSERT_EQ(chown(path, 7, 0), 0);
    expectBroken("lets only root write", std::string(path) + " belongs to user 7; chown root");
    ASSERT_EQ(chown(path, 0, 7), 0);
    chmod(path, before.st_mode | S_IWGRP);
    expectBroken("lets only root write", std::string(path) + " can be written by group 7; chown root");
    ASSERT_EQ(chown(path, 0, 0), 0);
    EXPECT_EQ(check({"--secure"}).exitCode, 0) << "root's own group is root";
    chmod(path, before.st_mode);
  }
}

TEST_F(SecureSet, KeepsThePackagesKeyToRoot) {
  for (const mode_t mode : {0640U, 0604U, 0610U}) {
    chmod(kPackageKey, mode);
    expectBroken("keeps the packages' key to root", "chmod 600 /usr/share/fw-update/package.key");
  }

  fs::remove(kPackageKey);
  const ProgramResult result = check({"--secure"});
  EXPECT_EQ(result.exitCode, 0) << result.output;
  EXPECT_NE(result.output.find("there is no /usr/share/fw-update/package.key"), std::string::npos);
}

TEST_F(SecureSet, DownloadsOnlyWhatIsSignedOverSafeConnections) {
  writeFile(kConfiguration, "url = https://packages.example/\nallow_unsigned=true\n");
  expectBroken("downloads only what is signed", "has allow_unsigned; remove the line, and sign the packages");
  writeFile(kConfiguration, "  allow_insecure = true # for now\n");
  expectBroken("downloads only what is signed",
               "has allow_insecure; remove the line, and serve them over https");

  writeFile(kConfiguration, "# allow_insecure = true\n");
  EXPECT_EQ(check({"--secure"}).exitCode, 0);
  fs::remove(kConfiguration);
  const ProgramResult result = check({"--secure"});
  EXPECT_EQ(result.exitCode, 0) << result.output;
  EXPECT_NE(result.output.find("nothing is downloaded"), std::string::npos);
}

TEST_F(SecureSet, MountsDrivesReadOnly) {
  const struct {
    unsigned long flags;
    const char* missing;
  } rows[] = {{MS_NOSUID | MS_NODEV | MS_NOEXEC, "not mounted with ro;"},
              {MS_RDONLY | MS_NODEV | MS_NOEXEC, "not mounted with nosuid;"},
              {MS_RDONLY | MS_NOSUID | MS_NOEXEC, "not mounted with nodev;"},
              {MS_RDONLY | MS_NOSUID | MS_NODEV, "not mounted with noexec;"}};
  for (const auto& row : rows) {
    mountDrive(row.flags);
    expectBroken("mounts drives read-only", row.missing);
  }
}

TEST_F(PlatformCheck, SaysThatNoDriveWasSeen) {
  EXPECT_NE(check({"--secure"}).output.find("no drive is mounted; plug one in"), std::string::npos);
}

class UnsignedDownload : public PlatformCheck {
 protected:
  static constexpr const char* kImage = "/opt/usr/apps/appbinarymanager/unsignedempfw.img";
  static constexpr const char* kPromise = " refuses a package without a signature\n";

  static void serve(const std::string& lines) {
    writeFile("/tmp/served/unsignedempfw.img", std::string(5000, 'u'));
    writeFile("/etc/fw-update/download.conf", "url = file:///tmp/served\n" + lines);
  }
  static ProgramResult ask(const std::vector<std::string>& more = {}, const std::string& fault = "") {
    std::vector<std::string> arguments = {"--only", "download", "--unsigned-package", "unsignedempfw"};
    arguments.insert(arguments.end(), more.begin(), more.end());
    return check(arguments, fault);
  }
};

TEST_F(UnsignedDownload, IsRefusedByThePlatformOfOrdinaryLinux) {
  serve("");

  const ProgramResult result = ask();

  EXPECT_EQ(result.exitCode, 0) << result.output;
  EXPECT_NE(result.output.find("download  kept        " + std::string(kPromise)), std::string::npos)
      << result.output;
  EXPECT_FALSE(fs::exists(kImage));
}

TEST_F(UnsignedDownload, IsFoundWhereTheConfigurationAllowsIt) {
  serve("allow_unsigned = true\n");

  const ProgramResult result = ask();

  EXPECT_EQ(result.exitCode, 1) << result.output;
  EXPECT_NE(result.output.find("download  BROKEN      " + std::string(kPromise)), std::string::npos)
      << result.output;
  EXPECT_FALSE(fs::exists(kImage)) << "it would be used";
}

TEST_F(UnsignedDownload, IsFoundOnAPlatformThatDoesNotLook) {
  for (const char* fault : {"download-takes-unsigned", "download-says-unsigned-is-there"}) {
    const ProgramResult result = ask({"--library", FAULTY_PLATFORM, "--timeout", "2"}, fault);

    EXPECT_EQ(result.exitCode, 1) << result.output;
    EXPECT_NE(result.output.find("download  BROKEN      " + std::string(kPromise)), std::string::npos)
        << result.output;
    EXPECT_FALSE(fs::exists(kImage));
  }
}

TEST_F(UnsignedDownload, IsNotCalledRefusedForAnotherReason) {
  writeFile("/etc/fw-update/download.conf", "url = file:///tmp/nothing\n");

  const std::string absent = ask().output;
  const std::string unknown = ask({"--library", FAULTY_PLATFORM, "--timeout", "2"}).output;

  EXPECT_NE(absent.find("unsignedempfw was not taken, but the reason is not \"unsigned\": "),
            std::string::npos)
      << absent;
  EXPECT_NE(unknown.find("the platform tells none"), std::string::npos) << unknown;
}

TEST_F(UnsignedDownload, LeavesAPackageAloneThatIsThereAlready) {
  serve("allow_unsigned = true\n");
  writeFile(kImage, "in use");

  const ProgramResult result = ask();

  EXPECT_NE(result.output.find(std::string(kImage) + " is there already"), std::string::npos)
      << result.output;
  EXPECT_EQ(fs::file_size(kImage), 6U);
}

TEST_F(UnsignedDownload, IsAskedForByItsIdentifierAlone) {
  const ProgramResult result = check({"--unsigned-package", "../unsigned"});

  EXPECT_EQ(result.exitCode, 2);
  EXPECT_NE(result.error.find("1 to 127 letters and digits"), std::string::npos) << result.error;
}

struct Fault {
  const char* name;
  const char* area;
  const char* promise;        // that must be called broken
  const char* sentence;       // why
  bool withoutNodes = false;  // in /dev
};

void PrintTo(const Fault& fault, std::ostream* stream) {
  *stream << fault.name << ": " << fault.promise;
}

class FaultyPlatform : public PlatformCheck, public ::testing::WithParamInterface<Fault> {};

TEST_P(FaultyPlatform, IsFoundOut) {
  const Fault& fault = GetParam();
  fs::copy_file(FAULTY_PLATFORM, "/usr/lib/libkZAQUser.so");
  std::optional<TemporaryMount> devices;
  if (fault.withoutNodes) {
    devices.emplace(TemporaryMount::memory("/dev"));
  }

  const ProgramResult result =
      check({"--library", FAULTY_PLATFORM, "--only", fault.area, "--timeout", "2"}, fault.name);

  EXPECT_EQ(result.exitCode, 1) << result.output;
  EXPECT_NE(result.output.find("BROKEN       " + std::string(fault.promise)), std::string::npos)
      << result.output;
  EXPECT_NE(result.output.find(fault.sentence), std::string::npos) << result.output;
}

constexpr Fault kFaults[] = {
    {"log-errno", "log", "leaves errno as it was", "errno was changed to 5"},
    {"log-length", "log", "returns the length of the message", "returned 21 for a message of 20 bytes"},
    {"log-exits", "log", "leaves errno as it was", "the process ended without an answer"},
    {"log-ends-by-signal", "log", "leaves errno as it was", "the process ended with \"Terminated\""},
    {"log-null-tag", "log", "takes a null tag and a null format", "Aborted"},
    {"log-null-format", "log", "takes a null tag and a null format", "Aborted"},
    {"log-no-error-text", "log", "formats %m as the error text of errno", "for a message of 15 bytes"},
    {"log-threads", "log", "takes calls from several threads at once", "Aborted"},
    {"log-cuts", "log", "takes messages of any length", "returned 999"},
    {"system-no-dash", "system", "gives a software version", "television"},
    {"system-dash-first", "system", "gives a software version", "the version is \"-1\""},
    {"system-unknown", "system", "gives a software version", "the call returned -2"},
    {"system-value-changed", "system", "refuses another key", "the value was changed"},
    {"system-any-key", "system", "refuses another key", "key -1 is answered with 0"},
    {"mount-says-yes", "mount", "refuses an image that is not there", "said to be mounted"},
    {"mount-says-yes", "mount", "mounts a package read-only", "not in the directory"},
    {"", "mount", "mounts a package read-only", "PS_Mount returned -38"},
    {"mount-writable", "mount", "mounts a package read-only", "not mounted with ro"},
    {"mount-with-devices", "mount", "mounts a package read-only", "not mounted with nodev"},
    {"mount-with-set-user-id", "mount", "mounts a package read-only", "not mounted with nosuid"},
    {"unmount-reads-on", "mount", "unmounts a directory that is given without a NUL",
     "PS_Umount returned -2"},
    {"unmount-says-yes", "mount", "unmounts a directory that is given without a NUL", "it is still mounted"},
    {"", "mount", "takes the library's text for a loop node", "the call returned -38", true},
    {"node-says-yes", "mount", "takes the library's text for a loop node", "no /dev/loop0 afterwards", true},
    {"power-odd-failure", "power", "gives back what it holds", "a failure is 1, not negative"},
    {"power-keeps", "power", "gives back what it holds", "what was held was not given back"},
    {"power-gives-more", "power", "gives back what it holds", "more was given back than was held"},
    {"", "power", "counts every hold", "one after the other"},
    {"", "power", "ends a hold by itself", "over a second"},
    {"", "event", "keeps a done event done", "not done for the process"},
    {"", "event", "wakes a process that waits", "not woken"},
    {"event-always-done", "event", "keeps a done event done", "an event that nobody signalled is done"},
    {"event-cannot-be-done", "event", "keeps a done event done", "signalling returned -5"},
    {"event-only-here", "event", "keeps a done event done", "it is not done for another process"},
    {"event-always-done", "event", "ends a wait after its time", "the wait ended with 0"},
    {"event-hangs", "event", "ends a wait after its time", "no answer within 2 s"},
    {"trace-errno", "trace", "leaves errno as it was", "errno was changed to 5"},
    {"trace-number-0", "trace", "numbers every place differently", "the number 0 was given"},
    {"trace-numbers-twice", "trace", "numbers every place differently", "the number 1 was given"},
    {"trace-one-buffer", "trace", "gives each thread a buffer of its own", "another thread wrote"},
    {"trace-not-in-a-child", "trace", "goes on in a forked child", "broke off at its first message"},
    {"verifier-takes-unsigned", "verifier", "refuses a file without a signature", "it was taken"},
    {"verifier-takes-missing", "verifier", "refuses a file that is not there", "it was taken"},
    {"download-any-name", "download", "refuses a name that is no identifier",
     "\"../platformcheck\" was accepted"},
    {"download-throws-exception", "download", "returns at once", "an exception was thrown: odd"},
    {"download-throws", "download", "returns at once", "Aborted"},
    {"download-knows-all", "download", "tells how a download goes", "which nobody asked for"},
    {"download-says-no-more", "download", "tells how a download goes", "a failure has no message"},
    {"download-odd-state", "download", "tells how a download goes", "there is no state 9"},
    {"download-odd-size", "download", "tells how a download goes", "the sizes are 0 and -2"},
};

INSTANTIATE_TEST_SUITE_P(Each, FaultyPlatform, ::testing::ValuesIn(kFaults), [](const auto& tested) {
  std::string name = std::string(tested.param.name) + "_" + tested.param.promise;
  for (char& letter : name) {
    letter = std::isalnum(static_cast<unsigned char>(letter)) != 0 ? letter : '_';
  }
  return name;
});

}  // namespace
