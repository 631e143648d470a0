// SPDX-License-Identifier: Apache-2.0
// The scripts of the Debian packages, with Debian's own programs and, in place of systemctl,
// one that notes what it is asked for.
#include <gmock/gmock.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <optional>
#include <string>

#include "device-environment.h"
#include "temporary-mount.h"

namespace {

namespace fs = std::filesystem;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;

class PackageScripts : public DeviceTest {
 protected:
  void SetUp() override {
    DeviceTest::SetUp();
    fs::create_directories("/run/systemd/system");
    // What it enables would be enabled on this machine.
    writeProgram("/tmp/programs/deb-systemd-helper", "exit 0");
    writeProgram("/tmp/programs/systemd-sysusers", "echo \"$*\" >>/tmp/groups");
    writeProgram("/tmp/programs/systemd-tmpfiles", "echo \"$*\" >>/tmp/directories");
    writeProgram("/tmp/programs/systemctl",
                 "echo \"$*\" >>/tmp/calls\ncase \"$*\" in *is-enabled*) echo enabled;; esac");
    writeFile("/tmp/calls", "");
    // It may say that nothing is to be started here.
    if (exists("/usr/sbin/policy-rc.d")) {
      writeProgram("/tmp/policy", "exit 0");
      policy_.emplace(TemporaryMount::bind("/tmp/policy", "/usr/sbin/policy-rc.d"));
    }
  }

  static void writeProgram(const std::string& path, const std::string& script) {
    writeFile(path, "#!/bin/sh\n" + script + "\n");
    fs::permissions(path, fs::perms::all);
  }

  // What systemctl was asked for, a line each; what the script says is in messages_.
  std::string Run(const std::string& script, const std::string& arguments) {
    const std::string command = "PATH=/tmp/programs:$PATH sh " FW_PACKAGE_SCRIPTS "/" + script + " " +
                                arguments + " >/tmp/messages 2>&1";
    EXPECT_EQ(std::system(command.c_str()), 0);
    messages_ = readFile("/tmp/messages");
    return readFile("/tmp/calls");
  }

  std::string messages_;

 private:
  std::optional<TemporaryMount> policy_;
};

TEST_F(PackageScripts, RestartTheServiceThatRunsWhenThePackageIsUpgraded) {
  const std::string calls = Run("platform/postinst", "configure 0.9.0-1");

  const std::size_t reloaded = calls.find("--system daemon-reload\n");
  const std::size_t restarted = calls.find("try-restart fw-privileged.service\n");
  EXPECT_NE(reloaded, std::string::npos) << calls;
  EXPECT_NE(restarted, std::string::npos) << calls;
  EXPECT_LT(reloaded, restarted) << "with its new unit";
  EXPECT_THAT(calls, HasSubstr("start fw-privileged.socket\n"));
  EXPECT_THAT(messages_, IsEmpty());
}

TEST_F(PackageScripts, StartOnlyTheSocketWhenThePackageIsNew) {
  const std::string calls = Run("platform/postinst", "configure ''");

  EXPECT_THAT(calls, HasSubstr("--system daemon-reload\n"));
  EXPECT_THAT(calls, HasSubstr("start fw-privileged.socket\n"));
  EXPECT_THAT(calls, Not(HasSubstr("fw-privileged.service")));
  EXPECT_THAT(messages_, IsEmpty());
}

TEST_F(PackageScripts, MakeTheGroupOfThoseWhoMayAskTheService) {
  Run("platform/postinst", "configure ''");

  EXPECT_EQ(readFile("/tmp/groups"), "fw-update.conf\n");
}

TEST_F(PackageScripts, AskForNothingWithoutTheServiceManager) {
  fs::remove("/run/systemd/system");

  EXPECT_THAT(Run("platform/postinst", "configure 0.9.0-1"), IsEmpty());
  EXPECT_THAT(Run("platform/prerm", "remove"), IsEmpty());
  EXPECT_THAT(Run("tools/postinst", "configure 0.9.0-1"), IsEmpty());
  EXPECT_THAT(Run("tools/prerm", "remove"), IsEmpty());
}

TEST_F(PackageScripts, StopTheServiceBeforeItIsRemovedAlone) {
  EXPECT_THAT(Run("platform/prerm", "upgrade 1.1.0-1"), IsEmpty());

  EXPECT_THAT(Run("platform/prerm", "remove"), HasSubstr("stop fw-privileged.socket fw-privileged.service"));
}

TEST_F(PackageScripts, RestartTheUpdateServiceThatRunsWhenItsPackageIsUpgraded) {
  const std::string calls = Run("tools/postinst", "configure 0.9.0-1");

  const std::size_t reloaded = calls.find("--system daemon-reload\n");
  const std::size_t restarted = calls.find("try-restart fw-updated.service\n");
  EXPECT_NE(reloaded, std::string::npos) << calls;
  EXPECT_NE(restarted, std::string::npos) << calls;
  EXPECT_LT(reloaded, restarted) << "with its new unit";
  EXPECT_THAT(messages_, IsEmpty());
}

TEST_F(PackageScripts, LeaveItToTheBusToStartTheUpdateService) {
  const std::string calls = Run("tools/postinst", "configure ''");

  EXPECT_EQ(calls, "--system daemon-reload\n");
  EXPECT_THAT(messages_, IsEmpty());
}

TEST_F(PackageScripts, StopTheUpdateServiceBeforeItIsRemovedAlone) {
  EXPECT_THAT(Run("tools/prerm", "upgrade 1.1.0-1"), IsEmpty());

  EXPECT_THAT(Run("tools/prerm", "remove"), HasSubstr("stop fw-updated.service"));
}

TEST_F(PackageScripts, MakeTheUserOfTheFleetsClientAndStartItAnewWithAnUpgradeAlone) {
  EXPECT_EQ(Run("fleet/postinst", "configure ''"), "--system daemon-reload\n");
  EXPECT_EQ(readFile("/tmp/groups"), "fw-fleet.conf\n");
  EXPECT_EQ(readFile("/tmp/directories"), "--create fw-fleet.conf\n");

  EXPECT_THAT(Run("fleet/postinst", "configure 0.9.0-1"), HasSubstr("try-restart fw-fleet.service\n"));
  EXPECT_THAT(messages_, IsEmpty());
}

TEST_F(PackageScripts, StopTheFleetsClientBeforeItIsRemovedAlone) {
  EXPECT_THAT(Run("fleet/prerm", "upgrade 1.1.0-1"), IsEmpty());

  EXPECT_THAT(Run("fleet/prerm", "remove"), HasSubstr("stop fw-fleet.service"));
}

TEST_F(PackageScripts, TakeTheActionsOfTheFleetAwayWithAPurgeAlone) {
  writeFile("/var/lib/fw-fleet/actions/1.action", "{}");

  Run("fleet/postrm", "remove");
  EXPECT_TRUE(exists("/var/lib/fw-fleet/actions/1.action"));

  Run("fleet/postrm", "purge");
  EXPECT_FALSE(exists("/var/lib/fw-fleet"));
}

TEST_F(PackageScripts, TakeTheHistoryAwayWithAPurgeAlone) {
  writeFile("/var/lib/fw-update/history.db", "entries");
  writeFile("/var/lib/fw-update/minimum-versions/tunerfw", "2.0.0");

  Run("tools/postrm", "remove");
  EXPECT_TRUE(exists("/var/lib/fw-update/history.db"));

  Run("tools/postrm", "purge");
  EXPECT_FALSE(exists("/var/lib/fw-update/history.db"));
  EXPECT_TRUE(exists("/var/lib/fw-update/minimum-versions/tunerfw"));
}

}  // namespace
