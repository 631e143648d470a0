// SPDX-License-Identifier: Apache-2.0
// The fw-device command, as this user and, when that is root, as an ordinary user
// too. These tests run on the host, not on a device: they check the host as well.
#include <elf.h>
#include <gtest/gtest.h>
#include <json/json.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

#include "device-layout.h"
#include "image-information.h"
#include "running-program.h"

namespace fs = std::filesystem;

namespace {

constexpr uid_t kNobody = 65534;
constexpr char kControls[] = "/prd/usr/fwupdate/controls";
constexpr int kLinesOfAScreen = 24;
constexpr std::size_t kSignatureSize = 534;  // bytes, behind a package

std::string readFile(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

void writeFile(const std::string& path, const std::string& content) {
  std::ofstream(path, std::ios::binary) << content;
}

void makeExecutable(const std::string& path, const std::string& content) {
  writeFile(path, content);
  fs::permissions(path, fs::perms(0755));
}

// Whether the kernel lets this user make private mounts at all.
bool mayMount(uid_t user) {
  const std::string probe = "unshare --mount true 2>/dev/null || unshare --user --map-root-user --mount true";
  return runProgram({{"sh", "-c", probe}, "/", user, {}}).exitCode == 0;
}

// Its own copy of the command in a build tree below the host's /tmp, where an
// ordinary user can reach it, and everything the tests write.
class FwDevice : public ::testing::TestWithParam<uid_t> {
 protected:
  void SetUp() override {
    if (!mayMount(GetParam())) {
      GTEST_SKIP() << "this user may make no private mounts here";
    }
    char name[] = "/tmp/fw-device-test.XXXXXX";
    ASSERT_NE(mkdtemp(name), nullptr);
    home = name;
    fs::permissions(home, fs::perms(0755));
    fs::create_directories(home + "/build/bin");
    fs::create_directories(home + "/build/modules");
    fs::create_directories(home + "/user");
    tool = home + "/build/bin/fw-device";
    device = home + "/user/tv";
    fs::copy_file(FW_DEVICE_PROGRAM, tool);
    writeFile(home + "/build/modules/libtuner.so", "first build");
    writeFile(home + "/build/modules/notes.txt", "no module");
    fs::create_directories(home + "/build/lib");
    writeFile(home + "/build/lib/libkZAQUser.so", "first verifier");
    if (GetParam() != 0) {
      ASSERT_EQ(chown((home + "/user").c_str(), GetParam(), GetParam()), 0);
    }
  }

  void TearDown() override {
    if (!home.empty()) {
      fs::remove_all(home);
    }
  }

  ProgramStart start(const std::vector<std::string>& arguments) const {
    std::vector<std::string> command = {tool};
    command.insert(command.end(), arguments.begin(), arguments.end());
    return {command, home + "/user", GetParam(), {}};
  }

  ProgramResult fwDevice(const std::vector<std::string>& arguments) const {
    return runProgram(start(arguments));
  }

  void makeDevice() const {
    const auto result = fwDevice({"init", device});
    ASSERT_EQ(result.exitCode, 0) << result.error;
  }

  // Runs a shell script on the device.
  ProgramResult onDevice(const std::string& script) const {
    return fwDevice({"run", device, "--", "sh", "-c", script});
  }

  std::string home;
  std::string tool;
  std::string device;
};

std::vector<uid_t> users() {
  return geteuid() == 0 ? std::vector<uid_t>{0, kNobody} : std::vector<uid_t>{0};
}

INSTANTIATE_TEST_SUITE_P(As, FwDevice, ::testing::ValuesIn(users()),
                         [](const auto& user) { return user.param == 0 ? "ThisUser" : "Nobody"; });

bool crcMatches(const std::string& folder) {
  std::istringstream text(readFile(folder + "/info.json"));
  Json::Value information;
  text >> information;
  const auto image = readFile(folder + "/" + fs::path(folder).filename().string() + ".bin");
  return information["crc"].asUInt() == image::crcOf(image);
}

TEST_P(FwDevice, InitInstallsModulesAndImages) {
  const auto result = fwDevice({"init", device});

  EXPECT_EQ(result.exitCode, 0) << result.error;
  EXPECT_EQ(readFile(device + kControls + "/libtuner.so"), "first build");
  EXPECT_FALSE(fs::exists(device + kControls + "/notes.txt"));
  EXPECT_TRUE(crcMatches(device + "/lib/firmware/ext/tunerfw"));
  EXPECT_TRUE(crcMatches(device + "/lib/firmware/ext/remotefw"));
  EXPECT_TRUE(crcMatches(device + "/opt/usr/share/sbox/panelfw"));
  EXPECT_TRUE(crcMatches(device + "/opt/media/USBDriveA/wififw"));
  EXPECT_FALSE(crcMatches(device + "/lib/firmware/ext/panelfw"));
  const auto package = readFile(device + "/opt/usr/apps/appbinarymanager/wifiempfw.img");
  EXPECT_EQ(package.substr(0, 4), "hsqs");
  EXPECT_EQ(package.substr(package.size() - std::min(package.size(), kSignatureSize), 8), "FWSIGNED");
}

TEST_P(FwDevice, InitOffersAPackageForDownload) {
  makeDevice();

  const auto result =
      onDevice("head -c 4 \"$(sed -n 's,^url = file://,,p' /etc/fw-update/download.conf)/tunerempfw.img\"");

  EXPECT_EQ(result.output, "hsqs") << result.error;
}

TEST_P(FwDevice, InitAgainKeepsTheUsersDownloadConfiguration) {
  makeDevice();
  ASSERT_EQ(onDevice("echo own >/etc/fw-update/download.conf").exitCode, 0);

  makeDevice();

  EXPECT_EQ(readFile(device + "/etc/fw-update/download.conf"), "own\n");
}

TEST_P(FwDevice, InitInstallsTheVerifierAndKeysOfItsOwn) {
  makeDevice();

  EXPECT_EQ(readFile(device + sandbox::kVerifierLibrary), "first verifier");
  EXPECT_EQ(readFile(device + "/usr/share/fw-update/package.key").size(), 32U);
  EXPECT_NE(readFile(device + "/maker/signing.key").find("PRIVATE KEY"), std::string::npos);
  EXPECT_EQ(onDevice("cat /usr/share/fw-update/keys/demonstration.pem").output.find("-----BEGIN PUBLIC KEY"),
            0U);
  for (const std::string secret : {"/usr/share/fw-update/package.key", "/maker/signing.key"}) {
    EXPECT_EQ(fs::status(device + secret).permissions(), fs::perms(0600)) << secret;
  }
}

TEST_P(FwDevice, InitAgainRenewsTheVerifierAndKeepsTheKeys) {
  makeDevice();
  const std::string packageKey = readFile(device + "/usr/share/fw-update/package.key");
  const std::string publicKey = readFile(device + "/usr/share/fw-update/keys/demonstration.pem");
  writeFile(home + "/build/lib/libkZAQUser.so", "second verifier");

  ASSERT_EQ(fwDevice({"init", "--fresh", device}).exitCode, 0);

  EXPECT_EQ(readFile(device + sandbox::kVerifierLibrary), "second verifier");
  EXPECT_EQ(readFile(device + "/usr/share/fw-update/package.key"), packageKey);
  EXPECT_EQ(readFile(device + "/usr/share/fw-update/keys/demonstration.pem"), publicKey);
}

TEST_P(FwDevice, InitSaysThatPackagesAreNotCheckedWithoutAVerifier) {
  fs::remove(home + "/build/lib/libkZAQUser.so");

  const auto result = fwDevice({"init", device});

  EXPECT_EQ(result.exitCode, 0) << result.error;
  EXPECT_NE(result.output.find("verifier none: packages are not checked"), std::string::npos)
      << result.output;
}

TEST_P(FwDevice, InitSaysWhatItInstalled) {
  const auto result = fwDevice({"init", device});

  EXPECT_EQ(result.output, "device   " + device +
                               "\n"
                               "module   libtuner.so\n"
                               "image    tunerfw  2.0.0  /lib/firmware/ext\n"
                               "image    panelfw  2.1.1  /lib/firmware/ext  (corrupt on purpose)\n"
                               "image    remotefw 1.1.0  /lib/firmware/ext\n"
                               "image    panelfw  2.1.0  /opt/usr/share/sbox\n"
                               "image    wififw   1.4.2  /opt/media/USBDriveA\n"
                               "package  wifiempfw  1.5.0  /opt/usr/apps/appbinarymanager\n"
                               "package  tunerempfw 2.5.0  /opt/media/packages\n"
                               "verifier " +
                               device + sandbox::kVerifierLibrary +
                               "\n"
                               "keys     " +
                               device +
                               "/maker/signing.key  (to sign packages with)\n"
                               "keys     " +
                               device +
                               "/usr/share/fw-update/package.key  (to encrypt USB packages with)\n"
                               "next     fw-device run " +
                               device + " -- fw-update list\n");
}

TEST_P(FwDevice, InitAgainRenewsModulesAndImagesAndKeepsTheState) {
  makeDevice();
  ASSERT_EQ(
      onDevice(
          "echo state > /var/lib/fw-components/tunerfw.flash; echo own > /prd/usr/fwupdate/controls/own.so;"
          "echo lost > /lib/firmware/ext/tunerfw/tunerfw.bin")
          .exitCode,
      0);
  writeFile(home + "/build/modules/libtuner.so", "second build");

  makeDevice();

  EXPECT_EQ(readFile(device + kControls + "/libtuner.so"), "second build");
  EXPECT_TRUE(crcMatches(device + "/lib/firmware/ext/tunerfw"));
  EXPECT_EQ(readFile(device + "/var/lib/fw-components/tunerfw.flash"), "state\n");
  EXPECT_EQ(readFile(device + kControls + "/own.so"), "own\n");
}

TEST_P(FwDevice, InitFreshForgetsTheState) {
  makeDevice();
  ASSERT_EQ(onDevice("touch /var/lib/fw-components/x /tmp/x /dev/shm/x /run/x").exitCode, 0);

  const auto result = fwDevice({"init", "--fresh", device});

  EXPECT_EQ(result.exitCode, 0) << result.error;
  for (const char* directory : {"/var/lib/fw-components", "/tmp", "/dev/shm", "/run"}) {
    EXPECT_FALSE(fs::exists(device + directory + "/x")) << directory;
  }
  EXPECT_TRUE(fs::exists(device + kControls + "/libtuner.so"));
}

TEST_P(FwDevice, InitTakesNoFileForADirectory) {
  writeFile(home + "/user/precious", "x");

  const auto result = fwDevice({"init", home + "/user/precious"});

  EXPECT_EQ(result.exitCode, 3);
  EXPECT_NE(result.error.find("precious is no directory; name a new one"), std::string::npos) << result.error;
  EXPECT_EQ(readFile(home + "/user/precious"), "x");
}

TEST_P(FwDevice, InitLeavesADirectoryThatHoldsOtherThingsAlone) {
  writeFile(home + "/user/precious", "x");

  const auto result = fwDevice({"init", "--fresh", home + "/user"});

  EXPECT_EQ(result.exitCode, 3);
  EXPECT_NE(result.error.find("is not empty and no device"), std::string::npos) << result.error;
  const auto entries = fs::directory_iterator(home + "/user");
  EXPECT_EQ(std::distance(entries, fs::directory_iterator()), 1);
}

TEST_P(FwDevice, InitTakesAnEmptyDirectory) {
  ASSERT_EQ(runProgram({{"mkdir", device}, "/", GetParam(), {}}).exitCode, 0);

  EXPECT_EQ(fwDevice({"init", device}).exitCode, 0);
}

TEST_P(FwDevice, InitWithoutModulesFailsAndSaysWhereItLooked) {
  fs::remove_all(home + "/build/modules");

  const auto result = fwDevice({"init", device});

  EXPECT_EQ(result.exitCode, 1);
  EXPECT_NE(result.error.find(home + "/build/modules"), std::string::npos) << result.error;
}

TEST_P(FwDevice, InitFindsTheModulesOfAnInstalledTree) {
  fs::create_directories(home + "/build/lib/fw-update");
  fs::rename(home + "/build/modules", home + "/build/lib/fw-update/modules");

  EXPECT_EQ(fwDevice({"init", device}).exitCode, 0);
}

TEST_P(FwDevice, RunShowsTheDeviceAtItsFixedPaths) {
  makeDevice();

  const auto result = onDevice("cat /prd/usr/fwupdate/controls/libtuner.so; ls /opt/media/USBDriveA");

  EXPECT_EQ(result.output, "first buildwififw\n") << result.error;
}

TEST_P(FwDevice, KeepsStateFromRunToRun) {
  makeDevice();
  std::string write, read;
  for (const auto& directory : sandbox::kDeviceDirectories) {
    if (directory.place != sandbox::Place::Writable) {
      write += std::string("echo kept > ") + directory.path + "/state && ";
      read += std::string("cat ") + directory.path + "/state && ";
    }
  }

  const auto written = onDevice(write + "true");
  const auto found = onDevice(read + "true");

  EXPECT_EQ(written.exitCode, 0) << written.error;
  EXPECT_EQ(found.exitCode, 0) << found.error;
}

TEST_P(FwDevice, TwoRunsShareLocksInTmpAndInSharedMemory) {
  makeDevice();
  for (const std::string lock : {"/tmp/lock", "/dev/shm/sem.lock"}) {
    RunningProgram holder(
        start({"run", device, "--", "sh", "-c", "exec 9>" + lock + "; flock 9; echo held; read end"}));
    ASSERT_EQ(holder.readLine(), "held");

    EXPECT_EQ(onDevice("flock --nonblock " + lock + " true").exitCode, 1) << lock;
    holder.wait();

    EXPECT_EQ(onDevice("flock --nonblock " + lock + " true").exitCode, 0) << lock;
  }
}

TEST_P(FwDevice, DevicesInTwoDirectoriesShareNothing) {
  makeDevice();
  const auto other = home + "/user/other";
  ASSERT_EQ(fwDevice({"init", other}).exitCode, 0);
  ASSERT_EQ(onDevice("touch /tmp/x /dev/shm/x /prd/x").exitCode, 0);

  EXPECT_NE(fwDevice({"run", other, "--", "ls", "/tmp/x"}).exitCode, 0);
  EXPECT_NE(fwDevice({"run", other, "--", "ls", "/dev/shm/x"}).exitCode, 0);
  EXPECT_NE(fwDevice({"run", other, "--", "ls", "/prd/x"}).exitCode, 0);
}

TEST_P(FwDevice, RunPassesTheExitCodeThrough) {
  makeDevice();

  EXPECT_EQ(onDevice("exit 42").exitCode, 42);
  EXPECT_EQ(onDevice("true").exitCode, 0);
}

TEST_P(FwDevice, RunPassesSignalsThrough) {
  makeDevice();
  RunningProgram program(start({"run", device, "--", "sh", "-c", "echo ready; exec cat"}));
  ASSERT_EQ(program.readLine(), "ready");

  program.kill(SIGTERM);

  EXPECT_EQ(program.wait().signal, SIGTERM);
}

TEST_P(FwDevice, RunPassesArgumentsInputAndOutputThroughUnchanged) {
  makeDevice();

  const auto result =
      runProgram(start({"run", device, "--", "sh", "-c", "printf '<%s>' \"$@\"; cat; echo e >&2", "sh", "",
                        "--", "-h", "a b"}),
                 "input");

  EXPECT_EQ(result.output, "<><--><-h><a b>input");
  EXPECT_EQ(result.error, "e\n");
}

TEST_P(FwDevice, RunTakesAProgramWithoutTheSeparator) {
  makeDevice();

  EXPECT_EQ(fwDevice({"run", device, "printf", "<%s>", "--", "-h"}).output, "<--><-h>");
}

TEST_P(FwDevice, RunFindsTheProgramsOfItsOwnBuildFirst) {
  makeDevice();
  makeExecutable(home + "/build/bin/ls", "#!/bin/sh\necho of this build\n");

  EXPECT_EQ(fwDevice({"run", device, "--", "ls"}).output, "of this build\n");
}

TEST_P(FwDevice, RunNamesTheDeviceInTheEnvironment) {
  makeDevice();

  EXPECT_EQ(onDevice("echo $FW_DEVICE").output, device + "\n");
}

TEST_P(FwDevice, RunDropsATemporaryDirectoryThatTheDeviceLacks) {
  makeDevice();
  auto program = start({"run", device, "--", "sh", "-c", "echo ${TMPDIR-none}"});
  program.environment = {"TMPDIR=" + home};
  auto other = program;
  other.environment = {"TMPDIR=/var/tmp"};

  EXPECT_EQ(runProgram(program).output, home + "\n");  // the build lies there, so it is visible
  program.environment = {"TMPDIR=/tmp/not-on-the-device"};
  EXPECT_EQ(runProgram(program).output, "none\n");
  EXPECT_EQ(runProgram(other).output, "/var/tmp\n");
}

TEST_P(FwDevice, RunKeepsAProgramBelowTmpUsable) {
  makeDevice();
  fs::create_directories(home + "/elsewhere");
  makeExecutable(home + "/elsewhere/program", "#!/bin/sh\ncat \"$(dirname \"$0\")/data\"\n");
  writeFile(home + "/elsewhere/data", "beside it");

  EXPECT_EQ(fwDevice({"run", device, "--", home + "/elsewhere/program"}).output, "beside it");
  EXPECT_EQ(fwDevice({"run", device, "--", "../elsewhere/program"}).output, "beside it");
}

TEST_P(FwDevice, RunKeepsAProgramBelowTmpThatThePathFindsUsable) {
  makeDevice();
  fs::create_directories(home + "/elsewhere");
  makeExecutable(home + "/elsewhere/program-of-the-path", "#!/bin/sh\necho found\n");
  auto program = start({"run", device, "--", "program-of-the-path"});
  program.environment = {"PATH=" + home + "/elsewhere:/usr/bin:/bin"};

  EXPECT_EQ(runProgram(program).output, "found\n");
}

TEST_P(FwDevice, RunStaysInADirectoryBelowTmp) {
  makeDevice();
  writeFile(home + "/user/file", "x");

  EXPECT_EQ(onDevice("pwd; cat file").output, home + "/user\nx");
}

TEST_P(FwDevice, RunShowsAPathThatWasNamed) {
  makeDevice();
  fs::create_directories(home + "/named");
  writeFile(home + "/named/file", "x");

  EXPECT_NE(fwDevice({"run", device, "--", "cat", home + "/named/file"}).exitCode, 0);
  EXPECT_EQ(fwDevice({"run", "--keep", home + "/named", device, "--", "cat", home + "/named/file"}).output,
            "x");
}

TEST_P(FwDevice, RunRefusesToShowAPathThatIsNotThere) {
  makeDevice();

  const auto result = fwDevice({"run", "--keep", home + "/missing", device, "--", "true"});

  EXPECT_EQ(result.exitCode, 2);
  EXPECT_NE(result.error.find(home + "/missing"), std::string::npos) << result.error;
}

TEST_P(FwDevice, RunTellsAMissingProgramFromOneThatCannotRun) {
  makeDevice();

  const auto missing = fwDevice({"run", device, "--", "no-such-program"});
  const auto notExecutable = fwDevice({"run", device, "--", "/etc/passwd"});

  EXPECT_EQ(missing.exitCode, 127);
  EXPECT_NE(missing.error.find("cannot run no-such-program on the device"), std::string::npos)
      << missing.error;
  EXPECT_EQ(notExecutable.exitCode, 126);
  EXPECT_NE(notExecutable.error.find("cannot run /etc/passwd on the device"), std::string::npos)
      << notExecutable.error;
}

TEST_P(FwDevice, RunLeavesNothingOnTheHost) {
  makeDevice();
  const auto name = fs::path(home).filename().string();  // nobody else's
  const auto mountsBefore = readFile("/proc/self/mounts");
  std::string script;
  for (const auto& directory : sandbox::kDeviceDirectories) {
    script += std::string("touch ") + directory.path + "/x." + name + " && ";
  }
  script += "mkdir /" + name + " && mount -t tmpfs none /" + name + " && mount -t tmpfs none /opt/media";

  const auto result = onDevice(script);

  ASSERT_EQ(result.exitCode, 0) << result.error;
  EXPECT_EQ(readFile("/proc/self/mounts"), mountsBefore);
  EXPECT_FALSE(fs::exists("/" + name));
  for (const auto& directory : sandbox::kDeviceDirectories) {
    EXPECT_FALSE(fs::exists(std::string(directory.path) + "/x." + name)) << directory.path;
  }
  EXPECT_TRUE(fs::exists(device + "/opt/media/x." + name));
}

// A throw-away host: a mount namespace in which the directories that an attack aims at
// are a layer over the real ones, or in memory. Only that host can suffer.
class FwDeviceOnAHost : public FwDevice {
 protected:
  // prepare and attack are shell scripts, attack one on the device; what check prints is
  // the host's state afterwards. $home and $tv are what they are here.
  ProgramResult attack(const std::string& prepare, const std::string& attack, const std::string& check,
                       const std::string& options = "") const {
    const bool root = GetParam() == 0 && geteuid() == 0;
    const std::string script = "set -e; home=" + home + "; tv=" + device + "; cd $home/user;" + prepare +
                               "\n" + tool + " run " + options + " $tv -- sh -c '" + attack +
                               "' 2>/dev/null || true\n" + check;
    std::vector<std::string> command = {"unshare", "--mount", "--propagation", "private"};
    if (!root) {
      command.insert(command.end(), {"--user", "--map-root-user"});
    }
    command.insert(command.end(), {"sh", "-c", script});
    return runProgram({command, "/", GetParam(), {}});
  }

  // Lays a layer in memory over a directory of the host.
  static std::string layerOver(const std::string& directory) {
    return "mkdir -p $home/user/layers; mount -t tmpfs none $home/user/layers;"
           "mkdir $home/user/layers/upper $home/user/layers/work;"
           "mount -t overlay -o lowerdir=" +
           directory + ",upperdir=$home/user/layers/upper,workdir=$home/user/layers/work overlay " +
           directory + ";";
  }
};

INSTANTIATE_TEST_SUITE_P(As, FwDeviceOnAHost, ::testing::ValuesIn(users()),
                         [](const auto& user) { return user.param == 0 ? "ThisUser" : "Nobody"; });

// Programs of the host may be changed on the device, but that is gone with the command.
TEST_P(FwDeviceOnAHost, LosesNoProgramToACommandOnTheDevice) {
  makeDevice();
  const bool root = GetParam() == 0 && geteuid() == 0;
  // An ordinary user cannot write to a layer over root's directories.
  const std::string prepare = root ? layerOver("/usr") + "cp /bin/true /usr/bin/victim;"
                                   : "mount -t tmpfs none /srv; cp /bin/true /srv;";
  const std::string victim = root ? "/usr/bin/victim" : "/srv/true";

  const auto result = attack(prepare, "rm -f " + victim + "; echo > " + victim,
                             "cmp /bin/true " + victim + " && echo unchanged");

  EXPECT_EQ(result.output, "unchanged\n") << result.error;
}

TEST_P(FwDeviceOnAHost, KeepsWhatIsShownOfItFromBeingChanged) {
  makeDevice();
  fs::create_directories(home + "/user/named/mounted");
  fs::create_directories(home + "/user/beside");
  writeFile(home + "/user/precious", "x");
  writeFile(home + "/user/named/precious", "x");
  makeExecutable(home + "/user/beside/program", "#!/bin/sh\nexec sh \"$@\"\n");
  if (GetParam() != 0) {
    ASSERT_EQ(runProgram({{"chown", "-R", "nobody", home + "/user", home + "/build"}, "/", 0, {}}).exitCode,
              0);
  }

  const auto result =
      attack("mount -t tmpfs none $home/user/named/mounted; echo x >$home/user/named/mounted/precious",
             "cd " + home + "/user; rm -rf precious named/precious named/mounted/precious " + home +
                 "/build/modules/libtuner.so; for place in . named named/mounted " + home +
                 "/build/bin; do echo new >$place/new; chmod 700 $place; done; mv named moved",
             "cd $home; find user/precious user/named build/modules/libtuner.so -type f; find . -name new -o "
             "-name moved",
             "--keep $home/user/named");

  EXPECT_EQ(result.output,
            "user/precious\nuser/named/precious\nuser/named/mounted/precious\nbuild/modules/libtuner.so\n")
      << result.error;
}

TEST_P(FwDeviceOnAHost, KeepsItsOtherDirectoriesFromBeingChanged) {
  makeDevice();

  const auto result = attack("mount -t tmpfs none /srv; echo x >/srv/precious",
                             "rm -f /srv/precious; touch /srv/new", "ls /srv");

  EXPECT_EQ(result.output, "precious\n") << result.error;
}

// The setting is written as it is, so that the attack changes nothing when it succeeds.
TEST_P(FwDeviceOnAHost, KeepsItsKernelsSettingsFromBeingChanged) {
  makeDevice();

  const auto result = attack("mkdir $tv/tmp/result; chmod 777 $tv/tmp/result",
                             "cat /proc/sys/kernel/panic >/tmp/panic;"
                             "cat /tmp/panic >/proc/sys/kernel/panic && echo written >/tmp/result/panic",
                             "ls $tv/tmp/result");

  EXPECT_EQ(result.output, "") << result.error;
}

TEST_P(FwDeviceOnAHost, KeepsADeviceThatIsTheHostOfAnotherFromBeingChanged) {
  makeDevice();

  const auto result =
      attack("",
             "mkdir /opt/outer && echo x >/opt/outer/precious && fw-device init /tmp/inner >/dev/null &&"
             "fw-device run /tmp/inner -- rm -f /opt/outer/precious; ls /opt/outer >/tmp/left",
             "cat $tv/tmp/left");

  EXPECT_EQ(result.output, "precious\n") << result.error;
}

TEST_P(FwDeviceOnAHost, IsWrittenToWhereTheUserSaysSo) {
  makeDevice();
  fs::create_directories(home + "/user/named");
  if (GetParam() != 0) {
    ASSERT_EQ(chown((home + "/user/named").c_str(), GetParam(), GetParam()), 0);
  }

  const auto result = attack("", "echo result >" + home + "/user/named/result",
                             "cat user/named/result $home/user/named/result", "--writable $home/user/named");

  EXPECT_EQ(readFile(home + "/user/named/result"), "result\n") << result.error;
}

TEST_P(FwDevice, RunRefusesToShowAWritablePathThatIsNotThere) {
  makeDevice();

  const auto result = fwDevice({"run", "--writable", home + "/missing", device, "--", "true"});

  EXPECT_EQ(result.exitCode, 2);
  EXPECT_NE(result.error.find("--writable " + home + "/missing: there is no such path"), std::string::npos)
      << result.error;
}

// Where init writes to.
constexpr const char* kWrittenDirectories[] = {
    "/tmp",
    "/dev/shm",
    "/var/lib/fw-components",
    "/prd/usr/fwupdate/controls",
    "/lib/firmware/ext",
    "/lib/firmware/ext/tunerfw",
    "/opt/usr/apps/appbinarymanager",
    "/etc/fw-update",
    "/usr/lib",
    "/usr/share/fw-update/keys",
    "/maker",
};

constexpr const char* kWrittenFiles[] = {
    "/.fw-device.new",
    "/prd/usr/fwupdate/controls/libtuner.so.new",
    "/lib/firmware/ext/tunerfw/tunerfw.bin.new",
    "/lib/firmware/ext/tunerfw/info.json.new",
    "/opt/usr/apps/appbinarymanager/wifiempfw.img.new",
    "/usr/lib/libkZAQUser.so.new",
};

// With something of the user's own that a link of the device leads to.
class FwDeviceWithALink : public FwDevice {
 protected:
  void SetUp() override {
    FwDevice::SetUp();
    if (IsSkipped()) {
      return;
    }
    makeDevice();
    precious = home + "/user/precious";
    asUser("mkdir " + precious + " && echo x >" + precious + "/file");
  }

  void asUser(const std::string& script) const {
    const auto done = runProgram({{"sh", "-c", script}, "/", GetParam(), {}});
    ASSERT_EQ(done.exitCode, 0) << script << done.error;
  }

  void expectPreciousUnchanged(const std::string& place) const {
    EXPECT_EQ(runProgram({{"find", precious, "-printf", "%P\n"}, "/", 0, {}}).output, "\nfile\n") << place;
    EXPECT_EQ(readFile(precious + "/file"), "x\n") << place;
  }

  std::string precious;
};

INSTANTIATE_TEST_SUITE_P(As, FwDeviceWithALink, ::testing::ValuesIn(users()),
                         [](const auto& user) { return user.param == 0 ? "ThisUser" : "Nobody"; });

TEST_P(FwDeviceWithALink, InitRefusesADirectoryThatLeadsOut) {
  for (const std::string place : kWrittenDirectories) {
    const auto link = device + place;
    asUser("rm -rf " + link + " && mkdir -p $(dirname " + link + ") && ln -s " + precious + " " + link);

    const auto result = fwDevice({"init", "--fresh", device});

    EXPECT_EQ(result.exitCode, 1) << place;
    EXPECT_NE(
        result.error.find("a link at " + device + place + " leads out of " + device + "; remove the link"),
        std::string::npos)
        << result.error;
    expectPreciousUnchanged(place);
    asUser("rm " + link);
  }
}

TEST_P(FwDeviceWithALink, InitReplacesAFileThatLeadsOut) {
  for (const std::string place : kWrittenFiles) {
    asUser("ln -s " + precious + "/file " + device + place);
  }

  const auto result = fwDevice({"init", device});

  EXPECT_EQ(result.exitCode, 0) << result.error;
  expectPreciousUnchanged("files");
  for (const std::string place : kWrittenFiles) {
    EXPECT_FALSE(fs::exists(fs::symlink_status(device + place))) << place;
  }
}

TEST_P(FwDevice, InitTakesNoLinkForTheMarkOfADevice) {
  const std::string plant = "mkdir " + device + " && echo x >" + home + "/user/precious && ln -s " + home +
                            "/user/precious " + device + "/.fw-device";
  ASSERT_EQ(runProgram({{"sh", "-c", plant}, "/", GetParam(), {}}).exitCode, 0);

  const auto result = fwDevice({"init", device});

  EXPECT_EQ(result.exitCode, 3) << result.error;
  EXPECT_EQ(readFile(home + "/user/precious"), "x\n");
}

TEST_P(FwDevice, InitRefusesADirectoryOfAnotherUser) {
  std::string directory = "/";
  if (GetParam() == 0 && geteuid() == 0) {
    directory = home + "/of-nobody";
    fs::create_directory(directory);
    ASSERT_EQ(chown(directory.c_str(), kNobody, kNobody), 0);
  }

  const auto result = fwDevice({"init", directory});

  EXPECT_EQ(result.exitCode, 3);
  EXPECT_NE(result.error.find(directory + " belongs to another user"), std::string::npos) << result.error;
  EXPECT_FALSE(fs::exists(directory + "/.fw-device"));
}

TEST_P(FwDevice, RunRefusesADeviceOfAnotherOrdinaryUser) {
  if (geteuid() != 0) {
    GTEST_SKIP() << "an ordinary user has no device of another one's";
  }
  makeDevice();
  const uid_t other = GetParam() == 0 ? kNobody : 1;
  ASSERT_EQ(chown(device.c_str(), other, other), 0);

  const auto result = onDevice("true");

  EXPECT_EQ(result.exitCode, 3);
  EXPECT_NE(result.error.find("whose programs would run as you"), std::string::npos) << result.error;
}

TEST_P(FwDevice, ADeviceWorksInsideADevice) {
  makeDevice();

  const auto result = onDevice(
      "fw-device init /tmp/inner >/dev/null && touch /prd/outer &&"
      "fw-device run /tmp/inner -- sh -c 'touch /prd/inner; ls /prd'; ls /prd");

  EXPECT_EQ(result.output, "inner\nusr\nouter\nusr\n") << result.error;
}

// A root file system with little more than a shell: what of this system's it needs is
// copied. It says which one it is, and its shell knows nothing of the host.
class FwDeviceRoot : public FwDevice {
 protected:
  void SetUp() override {
    FwDevice::SetUp();
    if (IsSkipped()) {
      return;
    }
    root = home + "/root";
    for (const std::string place :
         {"/proc", "/sys", "/dev", "/tmp", "/etc", "/usr/bin", "/var/lib", "/opt"}) {
      fs::create_directories(root + place);
    }
    writeFile(root + "/etc/name", "small\n");
    const std::string copy =
        "for program in sh cat ls touch pwd; do file=$(command -v $program);"
        "cp --dereference --parents $file $(ldd $file | grep -o '/[^ ]*') " +
        root + "; done; mkdir -p " + root + "/bin; cp --dereference --no-clobber $(command -v sh) " + root +
        "/bin";
    const auto copied = runProgram({{"sh", "-c", copy}, "/", 0, {}});
    ASSERT_EQ(copied.exitCode, 0) << copied.error;
  }

  void makeDeviceOnRoot() const {
    const auto result = fwDevice({"init", "--root", root, device});
    ASSERT_EQ(result.exitCode, 0) << result.error;
  }

  std::string root;
};

INSTANTIATE_TEST_SUITE_P(As, FwDeviceRoot, ::testing::ValuesIn(users()),
                         [](const auto& user) { return user.param == 0 ? "ThisUser" : "Nobody"; });

TEST_P(FwDeviceRoot, TakesThePlaceOfTheHosts) {
  makeDeviceOnRoot();

  EXPECT_EQ(onDevice("cat /etc/name").output, "small\n");
  EXPECT_NE(onDevice("cat /etc/passwd").exitCode, 0);
  EXPECT_EQ(onDevice("env").exitCode, 127);
}

TEST_P(FwDeviceRoot, HasTheDevicesDirectoriesOverIt) {
  fs::create_directories(root + "/prd/of-the-root");
  makeDeviceOnRoot();
  std::string write;
  for (const auto& directory : sandbox::kDeviceDirectories) {
    write += std::string("echo kept > ") + directory.path + "/state && ";
  }

  const auto written = onDevice(write + "true");

  EXPECT_EQ(written.exitCode, 0) << written.error;
  EXPECT_EQ(onDevice("ls /prd").output, "state\nusr\n");
  for (const auto& directory : sandbox::kDeviceDirectories) {
    EXPECT_EQ(fs::exists(device + directory.path + "/state"), directory.place != sandbox::Place::Writable)
        << directory.path;
    EXPECT_FALSE(fs::exists(root + directory.path + "/state")) << directory.path;
  }
}

TEST_P(FwDeviceRoot, HasTheHostsKernelDirectories) {
  makeDeviceOnRoot();

  EXPECT_EQ(onDevice("cat /proc/sys/kernel/osrelease").output, readFile("/proc/sys/kernel/osrelease"));
  EXPECT_EQ(onDevice("echo lost > /dev/null && ls /dev/null /sys/kernel >/dev/null").exitCode, 0);
}

TEST_P(FwDeviceRoot, LeavesNothingOnTheHostAndInTheRoot) {
  const auto list = [this] { return runProgram({{"find", root}, "/", 0, {}}).output; };
  const auto before = list();
  const auto mountsBefore = readFile("/proc/self/mounts");
  makeDeviceOnRoot();

  EXPECT_EQ(onDevice("touch /etc/new /usr/bin/new; touch /new /tmp/new").exitCode, 0);

  EXPECT_EQ(list(), before);
  EXPECT_EQ(readFile("/proc/self/mounts"), mountsBefore);
}

TEST_P(FwDeviceRoot, StaysTheDevicesUntilAnotherIsNamed) {
  makeDeviceOnRoot();
  ASSERT_EQ(fwDevice({"init", "--fresh", device}).exitCode, 0);
  EXPECT_EQ(onDevice("cat /etc/name").output, "small\n");

  ASSERT_EQ(fwDevice({"init", "--root", "/", device}).exitCode, 0);

  EXPECT_EQ(onDevice("cat /etc/passwd").output, readFile("/etc/passwd"));
}

TEST_P(FwDeviceRoot, TakesProgramsAndModulesFromTheNamedBuild) {
  const auto other = home + "/other";
  fs::create_directories(other + "/bin");
  fs::create_directories(other + "/modules");
  fs::create_directories(other + "/lib");
  makeExecutable(other + "/bin/ls", "#!/bin/sh\necho of the other build\n");
  writeFile(other + "/modules/libpanel.so", "other build");
  writeFile(other + "/lib/libkZAQUser.so", "other verifier");

  const auto result = fwDevice({"init", "--root", root, "--build", other, device});

  EXPECT_EQ(result.exitCode, 0) << result.error;
  EXPECT_NE(result.output.find("root     " + root + "\nbuild    " + other + "\n"), std::string::npos)
      << result.output;
  EXPECT_EQ(onDevice("ls; cat /prd/usr/fwupdate/controls/libpanel.so").output,
            "of the other build\nother build");
  EXPECT_EQ(readFile(device + sandbox::kVerifierLibrary), "other verifier");
  EXPECT_FALSE(fs::exists(device + kControls + "/libtuner.so"));
}

TEST_P(FwDeviceRoot, ShowsTheCurrentDirectoryThatItDoesNotHave) {
  makeDeviceOnRoot();
  writeFile(home + "/user/file", "x");

  EXPECT_EQ(onDevice("pwd; cat file").output, home + "/user\nx");
}

TEST_P(FwDeviceRoot, KeepsItsOwnDirectoryWhereTheHostHasOneToo) {
  makeDeviceOnRoot();
  writeFile(root + "/usr/bin/of-the-root", "");
  auto inUsrBin = start({"run", device, "--", "/bin/sh", "-c", "pwd; ls -d of-the-root env"});
  inUsrBin.directory = "/usr/bin";

  const auto result = runProgram(inUsrBin);

  EXPECT_EQ(result.output, "/usr/bin\nof-the-root\n") << result.error;
  EXPECT_NE(result.error.find("env"), std::string::npos) << result.error;
}

TEST_P(FwDeviceRoot, ShowsAProgramOfTheHostThatIsNamedByItsPath) {
  makeDeviceOnRoot();
  fs::create_directories(home + "/elsewhere");
  makeExecutable(home + "/elsewhere/program", "#!/bin/sh\ncat /etc/name\n");

  EXPECT_EQ(fwDevice({"run", device, "--", home + "/elsewhere/program"}).output, "small\n");
}

TEST_P(FwDeviceRoot, BringsItsOwnShell) {
  makeDeviceOnRoot();
  auto shell = start({"shell", device});
  shell.environment = {"SHELL=/bin/bash"};

  const auto result = runProgram(shell, "cat /etc/name; exit 7\n");

  EXPECT_EQ(result.output, "small\n") << result.error;
  EXPECT_EQ(result.exitCode, 7);
}

TEST_P(FwDeviceRoot, IsRefusedWhenItIsNotThere) {
  const auto result = fwDevice({"init", "--root", home + "/missing", device});

  EXPECT_EQ(result.exitCode, 2);
  EXPECT_NE(result.error.find("--root " + home + "/missing: there is no such directory"), std::string::npos)
      << result.error;
  EXPECT_FALSE(fs::exists(device));
}

TEST_P(FwDeviceRoot, IsRefusedForProgramsOfAnotherProcessor) {
  auto shell = readFile(root + "/bin/sh");
  shell[EI_CLASS] = shell[EI_CLASS] == ELFCLASS32 ? ELFCLASS64 : ELFCLASS32;
  writeFile(root + "/bin/sh", shell);

  const auto result = fwDevice({"init", "--root", root, device});

  EXPECT_EQ(result.exitCode, 2);
  EXPECT_NE(result.error.find("name a build for it with --build"), std::string::npos) << result.error;
}

TEST_P(FwDeviceRoot, IsRefusedWhenItIsNoRootFileSystem) {
  fs::remove(root + "/proc");
  makeDeviceOnRoot();

  const auto result = onDevice("true");

  EXPECT_EQ(result.exitCode, 4);
  EXPECT_NE(result.error.find(root + " is no root file system: it has no directory /proc"), std::string::npos)
      << result.error;
}

TEST_P(FwDevice, ShellRunsTheUsersShell) {
  makeDevice();
  makeExecutable(home + "/build/bin/own-shell", "#!/bin/sh\necho \"own shell, $PS1\"; exec sh\n");
  auto shell = start({"shell", device});
  shell.environment = {"SHELL=" + home + "/build/bin/own-shell"};

  const auto result = runProgram(shell, "echo $debian_chroot; exit 7\n");

  EXPECT_EQ(result.output, "own shell, (tv) # \ntv\n");
  EXPECT_EQ(result.error, "On the device tv; leave it with exit.\n");
  EXPECT_EQ(result.exitCode, 7);
}

TEST_P(FwDevice, ShellTakesAPlainShellWhenTheUsersIsMissing) {
  makeDevice();
  auto shell = start({"shell", device});
  shell.environment = {"SHELL=/no/such/shell"};

  const auto result = runProgram(shell, "ls /prd/usr; exit 7\n");

  EXPECT_EQ(result.output, "fwupdate\n") << result.error;
  EXPECT_EQ(result.exitCode, 7);
}

TEST_P(FwDevice, RefusesADirectoryThatIsNoDevice) {
  for (const auto& arguments : {std::vector<std::string>{"run", home + "/user", "--", "true"},
                                std::vector<std::string>{"shell", home + "/user"}}) {
    const auto result = fwDevice(arguments);

    EXPECT_EQ(result.exitCode, 3);
    EXPECT_NE(result.error.find("run fw-device init " + home + "/user first"), std::string::npos)
        << result.error;
  }
}

TEST_P(FwDevice, SaysThatTheSystemAllowsNoDevice) {
  makeDevice();
  const std::string refusing = "echo 0 > /proc/sys/user/max_mnt_namespaces && exec \"$@\"";

  const auto result = runProgram({{"unshare", "--user", "--map-root-user", "sh", "-c", refusing, "sh", tool,
                                   "run", device, "--", "true"},
                                  "/",
                                  GetParam(),
                                  {}});

  EXPECT_EQ(result.exitCode, 4) << result.error;
  EXPECT_NE(result.error.find("run as root, or allow user namespaces"), std::string::npos) << result.error;
}

struct Misuse {
  std::vector<std::string> arguments;
  const char* sentence;
};

TEST_P(FwDevice, ExplainsUsageErrors) {
  const Misuse misuses[] = {
      {{}, "required"},
      {{"frob"}, "there is no command frob"},
      {{"run"}, "DIR is required"},
      {{"run", "/tmp/x"}, "which command?"},
      {{"run", "/tmp/x", "--frob", "--", "ls"}, "there is no option --frob"},
      {{"shell", "/tmp/x", "--", "ls"}, "only run takes a command"},
      {{"init", "/tmp/x", "/tmp/y"}, "/tmp/y"},
  };
  for (const auto& misuse : misuses) {
    const auto result = fwDevice(misuse.arguments);

    EXPECT_EQ(result.exitCode, 2) << misuse.sentence;
    EXPECT_NE(result.error.find(misuse.sentence), std::string::npos) << result.error;
    EXPECT_NE(result.error.find("--help"), std::string::npos) << result.error;
    EXPECT_EQ(result.output, "");
  }
}

Json::Value documentIn(const ProgramResult& result) {
  Json::Value document;
  std::istringstream(result.output) >> document;
  return document;
}

TEST_P(FwDevice, TellsInJsonWhatTheDeviceHas) {
  const auto result = fwDevice({"init", device, "--json"});
  const Json::Value document = documentIn(result);

  EXPECT_EQ(result.exitCode, 0) << result.error;
  EXPECT_EQ(document["command"], "init");
  EXPECT_EQ(document["ok"], true);
  EXPECT_EQ(document["outcome"], "ok");
  EXPECT_EQ(document["device"], device);
  EXPECT_EQ(document["root"], "");
  EXPECT_EQ(document["modules"][0], "libtuner.so");
  EXPECT_EQ(document["images"].size(), 5U);
  EXPECT_EQ(document["images"][1]["name"], "panelfw");
  EXPECT_EQ(document["images"][1]["corrupt"], true);
  EXPECT_EQ(document["packages"][0]["name"], "wifiempfw");
  EXPECT_EQ(document["packages"][0]["firmware"], "wififw");
  EXPECT_TRUE(fs::exists(document["signingKey"].asString()));
  EXPECT_TRUE(fs::exists(document["packageKey"].asString()));
}

TEST_P(FwDevice, TellsInJsonWhatFailed) {
  const struct {
    std::vector<std::string> arguments;
    int exitCode;
    const char* outcome;
    const char* command;
  } failures[] = {
      {{"run", home, "--json", "--", "ls"}, 3, "no-device", "run"},
      {{"shell", home, "--json"}, 3, "no-device", "shell"},
      {{"init", "--json"}, 2, "usage", "init"},
      {{"frob", "--json"}, 2, "usage", ""},
  };
  for (const auto& failure : failures) {
    const auto result = fwDevice(failure.arguments);
    const Json::Value document = documentIn(result);

    EXPECT_EQ(result.exitCode, failure.exitCode);
    EXPECT_EQ(document["exitCode"], failure.exitCode) << result.output;
    EXPECT_EQ(document["outcome"], failure.outcome);
    EXPECT_EQ(document["command"], failure.command);
    EXPECT_EQ(document["ok"], false);
    EXPECT_NE(document["message"], "");
    EXPECT_EQ(result.error, "");
  }
}

TEST_P(FwDevice, LeavesOptionsOfTheCommandToIt) {
  makeDevice();

  const auto result = fwDevice({"run", device, "--", "echo", "--json"});

  EXPECT_EQ(result.output, "--json\n");
}

TEST_P(FwDevice, HelpFitsAScreenAndGivesAnExample) {
  for (const std::string command : {"", "init", "run", "shell"}) {
    const auto result = fwDevice(command.empty() ? std::vector<std::string>{"--help"}
                                                 : std::vector<std::string>{command, "--help"});

    EXPECT_EQ(result.exitCode, 0);
    EXPECT_LE(std::count(result.output.begin(), result.output.end(), '\n'), kLinesOfAScreen) << command;
    EXPECT_NE(result.output.find("Example: fw-device " + command), std::string::npos) << result.output;
  }
}

}  // namespace
