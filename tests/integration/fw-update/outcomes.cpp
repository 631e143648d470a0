// SPDX-License-Identifier: Apache-2.0
// Every way in which an update can end, for real.
#include <sys/stat.h>

#include <filesystem>

#include "tool-test.h"

namespace {

using ::testing::HasSubstr;

class UpdateOutcome : public ToolTest {
 protected:
  void SetUp() override {
    ToolTest::SetUp();
    installModule("libtuner");
    installImage("tunerfw");
  }

  // The document of an update that must end so.
  static Json::Value update(int exitCode, const char* outcome, const std::string& module = "libtuner",
                            std::vector<std::string> more = {}, const Launch& launch = {}) {
    more.insert(more.begin(), {"update", module});
    const Json::Value ended = document(more, launch);
    EXPECT_EQ(ended["exitCode"].asInt(), exitCode) << ended;
    EXPECT_EQ(ended["outcome"].asString(), outcome);
    EXPECT_EQ(ended["command"].asString(), "update");
    EXPECT_FALSE(ended["message"].asString().empty());
    return ended;
  }

  static Json::Value updateOddly(int exitCode, const char* outcome, const std::string& behaviour) {
    installOddModule();
    installImage("oddfw");
    return update(exitCode, outcome, "libodd", {}, {{"ODD_MODULE=" + behaviour}});
  }
};

TEST_F(UpdateOutcome, IsUpdated) {
  const Json::Value ended = update(0, "updated");

  EXPECT_EQ(ended["result"].asInt(), 0);
  EXPECT_EQ(ended["versionBefore"].asString(), "0.0.0");
  EXPECT_EQ(ended["versionAfter"].asString(), "2.0.0");
  EXPECT_EQ(ended["expectedSeconds"].asInt(), 60);
  EXPECT_GE(ended["elapsedSeconds"].asDouble(), 0);
}

TEST_F(UpdateOutcome, IsUpdatedByAnOwnProcedure) {
  installModule("libEXT-remote");
  installImage("remotefw");

  EXPECT_EQ(update(0, "updated", "libEXT-remote")["versionAfter"].asString(), "2.0.0");
}

TEST_F(UpdateOutcome, IsUnexpectedWhenTheLockIsBroken) {
  std::filesystem::create_directory(kLock);

  EXPECT_THAT(update(1, "unexpected-error")["message"].asString(), HasSubstr("Is a directory"));
}

TEST_F(UpdateOutcome, IsUsageForAnUnknownCaller) {
  update(2, "usage", "libtuner", {"--caller", "me"});
}

TEST_F(UpdateOutcome, IsNothingToDoForTheActiveVersion) {
  ASSERT_EQ(run({"update", "libtuner"}).exitCode, 0);

  EXPECT_THAT(update(3, "nothing-to-do")["message"].asString(), HasSubstr("version 2.0.0 is active"));
}

TEST_F(UpdateOutcome, IsNoSuchModule) {
  EXPECT_THAT(update(4, "no-such-module", "libtuners")["remedy"].asString(), HasSubstr("libtuner."));
}

TEST_F(UpdateOutcome, IsRefusedWithoutAnImage) {
  std::filesystem::remove("/lib/firmware/ext/tunerfw/tunerfw.bin");

  const Json::Value ended = update(5, "refused-image");

  EXPECT_EQ(ended["result"].asInt(), -1);
  EXPECT_THAT(ended["message"].asString(), HasSubstr("/lib/firmware/ext/tunerfw/tunerfw.bin"));
}

TEST_F(UpdateOutcome, IsRefusedForADamagedImage) {
  std::string image = readFile("/lib/firmware/ext/tunerfw/tunerfw.bin");
  image[1000] = static_cast<char>(~image[1000]);
  writeFile("/lib/firmware/ext/tunerfw/tunerfw.bin", image);

  EXPECT_THAT(update(5, "refused-image")["message"].asString(), HasSubstr("damaged"));
}

TEST_F(UpdateOutcome, IsRefusedForABadDescription) {
  writeFile("/lib/firmware/ext/tunerfw/info.json", "{\"crc\": ");

  EXPECT_THAT(update(5, "refused-image")["message"].asString(), HasSubstr("not a valid image description"));

  writeFile("/lib/firmware/ext/tunerfw/info.json", "{\"crc\": \"0\"}");

  EXPECT_THAT(update(5, "refused-image")["message"].asString(), HasSubstr("not a whole number"));

  std::filesystem::remove("/lib/firmware/ext/tunerfw/info.json");

  EXPECT_THAT(update(5, "refused-image")["message"].asString(), HasSubstr("info.json is missing"));
}

TEST_F(UpdateOutcome, IsRefusedWithoutAUsbDrive) {
  EXPECT_THAT(update(5, "refused-image", "libtuner", {"--caller", "factory"})["message"].asString(),
              HasSubstr("No USB drive"));
}

TEST_F(UpdateOutcome, IsRefusedWithoutAnExtensionPackage) {
  EXPECT_THAT(update(5, "refused-image", "libtuner", {"--caller", "debug"})["message"].asString(),
              HasSubstr("/opt/usr/apps/appbinarymanager/tunerempfw.img"));
}

TEST_F(UpdateOutcome, IsRefusedForAPackageThatIsNoFileSystem) {
  writeFile("/opt/usr/apps/appbinarymanager/tunerempfw.img", std::string(4096, 'x'));

  EXPECT_THAT(update(5, "refused-image", "libtuner", {"--caller", "debug"})["message"].asString(),
              HasSubstr("could not be mounted"));
}

TEST_F(UpdateOutcome, IsModuleFailedWithItsErrorText) {
  describeComponent("tunerfw", "fail_at_percent = 40");

  const Json::Value ended = update(6, "module-failed");

  EXPECT_EQ(ended["result"].asInt(), -5);
  EXPECT_THAT(
      ended["message"].asString(),
      ::testing::ContainsRegex("Input/output error.*It said: the component failed at 4[0-9] percent: "));
}

TEST_F(UpdateOutcome, IsModuleFailedWhenItThrows) {
  EXPECT_THAT(updateOddly(6, "module-failed", "throwing-update")["message"].asString(),
              HasSubstr("flash controller lost"));
}

TEST_F(UpdateOutcome, IsModuleFailedWhenItThrowsBeforeTheUpdate) {
  EXPECT_THAT(updateOddly(6, "module-failed", "throwing-check")["message"].asString(),
              HasSubstr("no answer"));
}

TEST_F(UpdateOutcome, IsModuleFailedWhenItsCheckFails) {
  EXPECT_THAT(updateOddly(6, "module-failed", "failing-check")["message"].asString(),
              HasSubstr("could not compare"));
}

TEST_F(UpdateOutcome, IsModuleFailedWhenItRefusesTheRequest) {
  EXPECT_THAT(updateOddly(6, "module-failed", "refuses-request")["message"].asString(),
              HasSubstr("refused the request"));
}

TEST_F(UpdateOutcome, IsModuleFailedForAnAnswerThatIsNeitherYesNorNo) {
  EXPECT_EQ(updateOddly(6, "module-failed", "needs-twice")["result"].asInt(), 2);
}

TEST_F(UpdateOutcome, TellsTheModulesOwnOneFromATimeOut) {
  EXPECT_EQ(updateOddly(6, "module-failed", "answers-one")["result"].asInt(), 1);
}

TEST_F(UpdateOutcome, IsTimedOut) {
  describeComponent("tunerfw", "stall_at_percent = 40");
  installImage("tunerfw", "2.0.0", 0);

  const Json::Value ended = update(7, "timed-out");

  EXPECT_EQ(ended["result"].asInt(), 1);
  EXPECT_GE(ended["elapsedSeconds"].asDouble(), 1.9);
  EXPECT_THAT(ended["message"].asString(), HasSubstr("gave up after 2 s (expected 0 s)"));
}

TEST_F(UpdateOutcome, IsNotPermittedWhenTheLockIsSomebodyElses) {
  writeFile(kLock, std::string(32, '\0'));
  chmod(kLock, 0);

  EXPECT_THAT(update(8, "not-permitted", "libtuner", {}, {{}, false})["message"].asString(),
              HasSubstr(kLock));
}

TEST_F(UpdateOutcome, IsNotPermittedWhenTheImageCannotBeRead) {
  chmod("/lib/firmware/ext/tunerfw/tunerfw.bin", 0);
  EXPECT_THAT(update(8, "not-permitted", "libtuner", {}, {{}, false})["message"].asString(),
              HasSubstr("firmware image"));

  chmod("/lib/firmware/ext/tunerfw/info.json", 0);
  EXPECT_THAT(update(8, "not-permitted", "libtuner", {}, {{}, false})["message"].asString(),
              HasSubstr("info.json"));

  chmod("/lib/firmware/ext/tunerfw", 0);
  EXPECT_THAT(update(8, "not-permitted", "libtuner", {}, {{}, false})["message"].asString(),
              HasSubstr("/lib/firmware/ext/tunerfw/tunerfw.bin"));
  chmod("/lib/firmware/ext/tunerfw", 0755);
}

TEST_F(UpdateOutcome, IsNotPermittedWhenTheModulesCannotBeRead) {
  chmod(kControls, 0);

  update(8, "not-permitted", "libtuner", {}, {{}, false});
  chmod(kControls, 0755);
}

TEST_F(UpdateOutcome, IsBrokenModuleForAllWhenOneIsBroken) {
  writeFile(std::string(kControls) + "libbad.so", "no library");

  EXPECT_THAT(update(9, "broken-module")["message"].asString(), HasSubstr("libbad.so"));
}

TEST_F(UpdateOutcome, IsNoControlsDirectory) {
  std::filesystem::remove_all(kControls);

  update(10, "no-controls-directory");
}

TEST_F(UpdateOutcome, DependsOnWhoAsks) {
  installImage("tunerfw", "3.0.0", 60, "/opt/usr/share/sbox/");
  installImage("tunerfw", "4.0.0", 60, "/opt/media/USBDriveA/");

  EXPECT_EQ(update(0, "updated", "libtuner", {"--caller", "epsolution"})["versionAfter"].asString(), "2.0.0");
  EXPECT_EQ(update(0, "updated", "libtuner", {"--caller", "lsm"})["versionAfter"].asString(), "3.0.0");
  EXPECT_EQ(
      update(0, "updated", "libtuner", {"--caller", "debug", "--data", "USB"})["versionAfter"].asString(),
      "4.0.0");
  update(3, "nothing-to-do", "libtuner", {"--caller", "factory-automation"});
}

}  // namespace
