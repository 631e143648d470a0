// SPDX-License-Identifier: Apache-2.0
// list, info, pending and progress.
#include <sys/stat.h>

#include <filesystem>

#include "tool-test.h"

namespace {

using ::testing::AllOf;
using ::testing::ContainsRegex;
using ::testing::EndsWith;
using ::testing::HasSubstr;

class Query : public ToolTest {};

const Json::Value& moduleOf(const Json::Value& document, const std::string& name) {
  for (const Json::Value& module : document["modules"]) {
    if (module["library"] == name) {
      return module;
    }
  }
  throw std::runtime_error(name + " is not there");
}

TEST_F(Query, ListsEveryModuleWithItsKind) {
  installModule("libtuner");
  installModule("libEXT-remote");

  const Json::Value listed = document({"list"});

  ASSERT_EQ(listed["modules"].size(), 2u);
  EXPECT_EQ(moduleOf(listed, "libtuner")["firmware"].asString(), "tunerfw");
  EXPECT_EQ(moduleOf(listed, "libtuner")["version"].asString(), "0.0.0");
  EXPECT_EQ(moduleOf(listed, "libtuner")["kind"].asString(), "ordinary");
  EXPECT_EQ(moduleOf(listed, "libEXT-remote")["kind"].asString(), "EXT");
}

TEST_F(Query, ListsModulesAsATableForPeople) {
  installModule("libtuner");

  const Ended listed = run({"list"});

  EXPECT_EQ(listed.out,
            "LIBRARY   FIRMWARE  VERSION  KIND\n"
            "libtuner  tunerfw   0.0.0    ordinary\n");
  EXPECT_EQ(listed.exitCode, 0);
}

TEST_F(Query, ExplainsALine) {
  const Json::Value known = document({"explain", "Error: Usb mount path Not found."});
  const Ended unknown = run({"explain", "nobody says this"});

  EXPECT_EQ(known["pattern"].asString(), "Error: Usb mount path Not found.");
  EXPECT_EQ(known["page"].asString(), "docs/troubleshooting.md");
  EXPECT_EQ(unknown.exitCode, 1);
  EXPECT_THAT(unknown.err, HasSubstr("No table has this line."));
}

TEST_F(Query, ListsNothingOnADeviceWithoutModules) {
  EXPECT_EQ(run({"list"}).out, "No module is installed in /prd/usr/fwupdate/controls.\n");
  EXPECT_EQ(document({"list"})["modules"], Json::Value(Json::arrayValue));
}

TEST_F(Query, SaysThatTheControlsDirectoryIsMissing) {
  std::filesystem::remove_all(kControls);

  for (const std::vector<std::string>& arguments :
       {std::vector<std::string>{"list"}, {"info", "x"}, {"pending"}, {"progress", "x"}}) {
    EXPECT_EQ(document(arguments)["exitCode"].asInt(), 10) << arguments[0];
  }
}

TEST_F(Query, TellsTheFreshVersionOfAModule) {
  installModule("libtuner");
  installImage("tunerfw");
  ASSERT_EQ(run({"update", "libtuner"}).exitCode, 0);

  const Json::Value info = document({"info", "libtuner"});

  EXPECT_EQ(info["version"].asString(), "2.0.0");
  EXPECT_EQ(info["firmware"].asString(), "tunerfw");
  EXPECT_EQ(info["package"].asString(), "tunerempfw");
  EXPECT_EQ(info["progress"].asInt(), 100);
  EXPECT_GT(info["expectedSeconds"].asInt(), 0);
}

TEST_F(Query, SaysWhetherAVersionIsActive) {
  installModule("libtuner");
  installImage("tunerfw");
  ASSERT_EQ(run({"update", "libtuner"}).exitCode, 0);

  const Ended right = run({"verify", "libtuner", "--version", "2.0.0"});
  const Json::Value wrong = document({"verify", "libtuner", "--version", "2.0"});

  EXPECT_EQ(right.exitCode, 0);
  EXPECT_EQ(right.out, "Version 2.0.0 is active on libtuner.\n");
  EXPECT_EQ(wrong["exitCode"].asInt(), 15);
  EXPECT_EQ(wrong["outcome"].asString(), "other-version");
  EXPECT_EQ(wrong["version"].asString(), "2.0.0");
  EXPECT_EQ(wrong["expectedVersion"].asString(), "2.0");
  EXPECT_EQ(wrong["message"].asString(), "Version 2.0.0 is active on libtuner, not 2.0.");
}

TEST_F(Query, NamesTheCallerWhoseImageHasTheVersionThatIsNotActive) {
  installModule("libtuner");
  installImage("tunerfw", "3.0.0");
  installImage("tunerfw", "2.0.0", 60, "/opt/usr/share/sbox/");

  const auto remedy = [](const std::string& version) {
    return document({"verify", "libtuner", "--version", version})["remedy"].asString();
  };

  EXPECT_THAT(remedy("2.0.0"), EndsWith("fw-update update libtuner --caller lsm"));
  EXPECT_THAT(remedy("3.0.0"), EndsWith("fw-update update libtuner --caller upgrade-app"));
  EXPECT_THAT(remedy("4.0.0"),
              AllOf(HasSubstr("No image of this version was found"), EndsWith(" --caller NAME")));
}

TEST_F(Query, NamesTheCallerThatAModuleIsPendingFor) {
  installModule("libtuner");
  installImage("tunerfw", "2.0.0", 60, "/opt/usr/share/sbox/");
  installImage("tunerfw");

  EXPECT_THAT(run({"pending", "--caller", "lsm", "--data", "a b"}).out + run({"pending"}).out,
              HasSubstr("A new image is ready."));
  EXPECT_EQ(document({"pending", "--caller", "lsm", "--data", "a b"})["modules"][0]["remedy"].asString(),
            "fw-update update libtuner --caller lsm --data \"a b\"");
  EXPECT_EQ(document({"pending"})["modules"][0]["remedy"].asString(), "fw-update update libtuner");
}

TEST_F(Query, SaysThatAModuleTellsNoVersion) {
  installOddModule();

  const Ended list = run({"list"}, {{"ODD_MODULE=no-version"}});

  EXPECT_THAT(list.out, ContainsRegex("libodd +oddfw +not told +ordinary"));
}

TEST_F(Query, SaysWhatTheErrorNumberMeansThatAModuleAnswered) {
  installOddModule();

  const Json::Value info = document({"info", "libodd"}, {{"ODD_MODULE=failing-version"}});

  EXPECT_EQ(info["message"].asString(),
            "libodd could not tell its version: it answered -5 (Input/output error).");
}

TEST_F(Query, VerifiesAnExtensionModuleToo) {
  installModule("libEXT-remote");

  EXPECT_EQ(run({"verify", "libEXT-remote", "--version", "0.0.0"}).exitCode, 0);
  EXPECT_EQ(run({"verify", "libEXT-remote", "--version", "1"}).exitCode, 15);
}

TEST_F(Query, VerifiesNoVersionThatIsNotKnown) {
  installOddModule();

  EXPECT_EQ(
      document({"verify", "libodd", "--version", ""}, {{"ODD_MODULE=failing-version"}})["exitCode"].asInt(),
      6);
  EXPECT_EQ(document({"verify", "libother", "--version", "1"})["exitCode"].asInt(), 4);
  EXPECT_EQ(document({"verify", "libodd"})["exitCode"].asInt(), 2);
}

TEST_F(Query, ShowsAModuleToPeople) {
  installModule("libtuner");
  installImage("tunerfw");
  run({"update", "libtuner"});

  const Ended info = run({"info", "libtuner"});

  EXPECT_THAT(info.out, HasSubstr("Version      2.0.0\n"));
  EXPECT_THAT(info.out, ContainsRegex("Takes about  [0-9]+ s\n"));
  EXPECT_THAT(info.out, HasSubstr("Progress     100 %\n"));
}

TEST_F(Query, ReportsAModuleThatCannotTellItsVersion) {
  installOddModule();

  const Json::Value info = document({"info", "libodd"}, {{"ODD_MODULE=failing-version"}});

  EXPECT_EQ(info["exitCode"].asInt(), 6);
  EXPECT_EQ(info["firmware"].asString(), "oddfw");
  EXPECT_FALSE(info.isMember("version"));
}

TEST_F(Query, KnowsNoUnknownModule) {
  installModule("libtuner");

  EXPECT_EQ(document({"info", "libTuner"})["exitCode"].asInt(), 4);
  EXPECT_EQ(document({"progress", "libTuner"})["exitCode"].asInt(), 4);
}

TEST_F(Query, SaysForEachModuleWhyItIsPendingOrNot) {
  for (const char* module : {"libtuner", "libpanel", "libwifi", "libEXT-remote"}) {
    installModule(module);
  }
  installImage("tunerfw");
  installImage("panelfw");
  installImage("wififw");
  ASSERT_EQ(run({"update", "libpanel"}).exitCode, 0);
  writeFile("/lib/firmware/ext/wififw/wififw.bin", "damaged");

  const Json::Value pending = document({"pending"});

  EXPECT_EQ(pending["exitCode"].asInt(), 0);
  EXPECT_TRUE(moduleOf(pending, "libtuner")["pending"].asBool());
  EXPECT_EQ(moduleOf(pending, "libpanel")["outcome"].asString(), "nothing-to-do");
  EXPECT_THAT(moduleOf(pending, "libpanel")["reason"].asString(), HasSubstr("version 2.0.0 is active"));
  EXPECT_EQ(moduleOf(pending, "libwifi")["outcome"].asString(), "refused-image");
  EXPECT_THAT(moduleOf(pending, "libwifi")["reason"].asString(), HasSubstr("wififw is damaged"));
  EXPECT_THAT(moduleOf(pending, "libEXT-remote")["reason"].asString(), HasSubstr("own procedure"));
}

TEST_F(Query, HasNothingPendingForACallerWithoutImages) {
  installModule("libtuner");
  installImage("tunerfw");

  EXPECT_EQ(document({"pending", "--caller", "lsm"})["exitCode"].asInt(), 3);
}

TEST_F(Query, NamesTheModuleThatThrewWhenAskedWhetherItIsPending) {
  installOddModule();
  installImage("oddfw");

  const Json::Value pending = document({"pending"}, {{"ODD_MODULE=throwing-check"}});

  EXPECT_EQ(pending["exitCode"].asInt(), 6);
  EXPECT_THAT(pending["message"].asString(), HasSubstr("libodd"));
}

TEST_F(Query, ReadsTheProgressOfAnotherProcessesUpdate) {
  installModule("libtuner");
  installImage("tunerfw");
  describeComponent("tunerfw", "stall_at_percent = 40");
  RunningTool update({"update", "libtuner", "--progress", "ndjson"}, {});
  update.waitFor("\"percent\":4");

  const Json::Value progress = document({"progress", "libtuner"});

  EXPECT_GE(progress["progress"].asInt(), 40);
  EXPECT_LT(progress["progress"].asInt(), 50);
  update.kill(SIGTERM);
  update.finish();
}

TEST_F(Query, SaysThatAModuleReportsNoProgress) {
  installOddModule("without-getUpdateProgress");

  const Json::Value progress = document({"progress", "libodd"});

  EXPECT_EQ(progress["exitCode"].asInt(), 3);
  EXPECT_EQ(progress["message"].asString(), "libodd reports no progress.");
  EXPECT_FALSE(progress.isMember("progress"));
}

TEST_F(Query, ReportsAModuleThatCannotTellItsProgress) {
  installOddModule();

  EXPECT_EQ(document({"progress", "libodd"}, {{"ODD_MODULE=failing-progress"}})["exitCode"].asInt(), 6);
}

}  // namespace
