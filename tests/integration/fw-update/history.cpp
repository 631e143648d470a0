// SPDX-License-Identifier: Apache-2.0
// What the command writes into the history of the set's updates, and shows of it.
#include <sys/stat.h>

#include <csignal>
#include <filesystem>

#include "signed-package.h"
#include "tool-test.h"

namespace {

using ::testing::AllOf;
using ::testing::ContainsRegex;
using ::testing::HasSubstr;
using ::testing::MatchesRegex;
using ::testing::Not;
namespace fs = std::filesystem;

constexpr const char* kHistoryFile = "/var/lib/fw-update/history.db";

class UpdateHistory : public ToolTest {
 protected:
  void SetUp() override {
    ToolTest::SetUp();
    installModule("libtuner");
    installImage("tunerfw");
  }

  static Json::Value entries(const std::vector<std::string>& options = {}) {
    std::vector<std::string> words{"history"};
    words.insert(words.end(), options.begin(), options.end());
    return document(words)["entries"];
  }
  static Json::Value shown(int number) {
    return document({"history", "show", std::to_string(number)})["entry"];
  }
};

TEST_F(UpdateHistory, HasEverythingAboutAnUpdate) {
  ASSERT_EQ(run({"update", "libtuner", "--caller", "epsolution"}).exitCode, 0);

  const Json::Value entry = shown(1);

  const std::pair<const char*, const char*> texts[] = {
      {"outcome", "updated"},           {"way", "direct"},
      {"caller", "epsolution"},         {"user", "root"},
      {"module", "libtuner"},           {"firmware", "tunerfw"},
      {"versionBefore", "0.0.0"},       {"versionAfter", "2.0.0"},
      {"source", "firmware directory"}, {"image", "/lib/firmware/ext/tunerfw/tunerfw.bin"},
  };
  for (const auto& [name, text] : texts) {
    EXPECT_EQ(entry[name].asString(), text) << name;
  }
  EXPECT_THAT(entry["sentence"].asString(), HasSubstr("libtuner was updated. Version 0.0.0 -> 2.0.0"));
  EXPECT_THAT(entry["steps"].asString(), AllOf(HasSubstr("check "), HasSubstr(", module ")));
  EXPECT_NE(entry["checksum"].asString(), "");
  EXPECT_GT(entry["began"].asDouble(), 1.7e9);
  EXPECT_GE(entry["ended"].asDouble(), entry["began"].asDouble());
}

TEST_F(UpdateHistory, HasWhatDidNotSucceedAndWhy) {
  ASSERT_EQ(run({"update", "libtuner"}).exitCode, 0);
  ASSERT_EQ(run({"update", "libtuner"}).exitCode, 3);
  const Json::Value refused = document({"update", "libtuner", "--caller", "lsm"});
  ASSERT_EQ(run({"update", "libnone"}).exitCode, 4);

  ASSERT_EQ(entries().size(), 4u);
  ASSERT_EQ(entries({"--failed"}).size(), 2u);
  const Json::Value entry = entries({"--failed", "--module", "libtuner"})[0];
  EXPECT_EQ(entry["number"].asInt(), 3);
  EXPECT_EQ(entry["outcome"].asString(), "refused-image");
  EXPECT_EQ(entry["sentence"].asString(), refused["message"].asString());
  EXPECT_EQ(entry["remedy"].asString(), refused["remedy"].asString());
  EXPECT_EQ(entry["image"].asString(), "/opt/usr/share/sbox/tunerfw/tunerfw.bin");
}

TEST_F(UpdateHistory, HasDownloadsAndWhyTheyFailed) {
  installModule("libpanel");
  const Json::Value refused = document({"download", "libtuner", "--wait"});
  ASSERT_EQ(refused["exitCode"].asInt(), 11);
  ASSERT_EQ(run({"download", "libtuner", "libpanel"}).exitCode, 11);
  ASSERT_EQ(run({"download", "libnone"}).exitCode, 4);

  const Json::Value all = entries();
  ASSERT_EQ(all.size(), 5u);
  const Json::Value one = shown(1);
  const std::pair<const char*, const char*> texts[] = {
      {"outcome", "download-failed"},
      {"way", "download"},
      {"user", "root"},
      {"module", "libtuner"},
      {"firmware", "tunerfw"},
      {"source", "download"},
      {"image", "/opt/usr/apps/appbinarymanager/tunerempfw.img"},
  };
  for (const auto& [name, text] : texts) {
    EXPECT_EQ(one[name].asString(), text) << name;
  }
  EXPECT_EQ(one["sentence"].asString(), refused["message"].asString());
  EXPECT_EQ(one["remedy"].asString(), refused["remedy"].asString());
  EXPECT_EQ(all[1]["module"].asString(), "");
  EXPECT_EQ(all[2]["module"].asString() + all[3]["module"].asString(), "libtunerlibpanel");
  EXPECT_EQ(all[2]["run"].asInt(), 2);
  EXPECT_EQ(all[4]["outcome"].asString(), "no-such-module");
}

TEST_F(UpdateHistory, HasWhatTheModuleItselfSaidOfItsFailure) {
  describeComponent("tunerfw", "fail_at_percent = 60");
  ASSERT_EQ(run({"update", "libtuner"}).exitCode, 6);

  const Json::Value entry = shown(1);

  const std::string reason = "the component failed at 6[0-9] percent: Input/output error";
  EXPECT_THAT(entry["messages"].asString(), MatchesRegex("libtuner: " + reason));
  EXPECT_THAT(entry["sentence"].asString(), ContainsRegex(" It said: " + reason));
  EXPECT_THAT(run({"history", "show", "1"}).out, HasSubstr("The module said"));
}

// The number of seconds that a step took; -1 when it is not told.
double secondsOf(const std::string& steps, const std::string& name) {
  const auto at = steps.find(name + " ");
  return at == std::string::npos ? -1 : std::stod(steps.substr(at + name.size() + 1));
}

TEST_F(UpdateHistory, HasTheTimeOfAModuleThatDidNotFinishInTime) {
  installImage("tunerfw", "2.0.0", 1);
  describeComponent("tunerfw", "stall_at_percent = 40");
  ASSERT_EQ(run({"update", "libtuner"}).exitCode, 7);

  const Json::Value entry = shown(1);

  const std::string steps = entry["steps"].asString();
  EXPECT_GE(secondsOf(steps, "module"), 1) << steps << ": it was waited for";
  EXPECT_LE(secondsOf(steps, "module"), entry["ended"].asDouble() - entry["began"].asDouble() + 0.1) << steps;
}

TEST_F(UpdateHistory, IsWrittenForADescriptionThatNoParserTakes) {
  writeFile("/lib/firmware/ext/tunerfw/info.json", std::string(5000, '['));

  const Json::Value refused = document({"update", "libtuner", "--caller", "epsolution"});

  EXPECT_EQ(refused["outcome"].asString(), "refused-image");
  EXPECT_EQ(shown(1)["outcome"].asString(), "refused-image");
}

TEST_F(UpdateHistory, IsShownFromATimeOn) {
  ASSERT_EQ(run({"update", "libtuner"}).exitCode, 0);

  EXPECT_EQ(entries({"--since", "2020-01-31"}).size(), 1u);
  EXPECT_EQ(entries({"--since", "2037-12-31T14:00"}).size(), 0u);
  EXPECT_EQ(run({"history", "--since", "yesterday"}).exitCode, 2);
}

TEST_F(UpdateHistory, FitsAScreenOfEightyColumns) {
  fs::copy_file(std::string(kControls) + "libtuner.so",
                std::string(kControls) + "libtuner-of-the-second-board.so");
  ASSERT_EQ(run({"update", "libtuner"}).exitCode, 0);
  run({"update", "libtuner-of-the-second-board"});

  const Ended list = run({"history"});

  std::istringstream lines(list.out);
  int count = 0;
  for (std::string line; std::getline(lines, line); ++count) {
    EXPECT_LE(line.size(), 80u) << line;
  }
  EXPECT_EQ(count, 3);
  EXPECT_THAT(list.out, HasSubstr("libtuner  "));
  EXPECT_THAT(list.out, HasSubstr("0.0.0 -> 2.0.0"));
  EXPECT_LT(list.out.find("\n1 "), list.out.find("\n2 "));
}

TEST_F(UpdateHistory, SaysWhatIsNotThere) {
  EXPECT_EQ(run({"history"}).out, "The history has no such update.\n");
  EXPECT_FALSE(exists(kHistoryFile));
  const Ended missing = run({"history", "show", "7"});
  EXPECT_EQ(missing.exitCode, 1);
  EXPECT_THAT(missing.err, HasSubstr("The history has no number 7."));
}

TEST_F(UpdateHistory, OnlyHasWhatUpdates) {
  run({"list"});
  run({"pending"});
  run({"update-all", "--dry-run"});

  EXPECT_EQ(entries().size(), 0u);
}

TEST_F(UpdateHistory, CallsAnUpdateInterruptedThatWasKilled) {
  describeComponent("tunerfw", "stall_at_percent = 40");
  RunningTool update({"update", "libtuner", "--progress", "ndjson"}, {});
  update.waitFor("\"percent\":4");
  EXPECT_EQ(shown(1)["outcome"].asString(), "running");

  update.kill(SIGKILL);
  EXPECT_EQ(update.finish(), -SIGKILL);

  EXPECT_EQ(shown(1)["outcome"].asString(), "interrupted");
  EXPECT_EQ(shown(1)["module"].asString(), "libtuner");
  EXPECT_FALSE(shown(1).isMember("ended"));
}

TEST_F(UpdateHistory, HasHowAnIsolatedUpdateCrashed) {
  fs::copy_file(FAULTY_MODULE, std::string(kControls) + "libfaulty.so");
  installImage("faultyfw", "2.0", 0);
  const Launch crashing{{"FAULTY_MODULE=doUpdate segv"}};

  const Json::Value ended = document({"update", "libfaulty", "--isolated"}, crashing);
  ASSERT_EQ(run({"update", "libtuner", "--isolated"}).exitCode, 0);

  ASSERT_EQ(entries().size(), 2u);
  EXPECT_EQ(shown(1)["outcome"].asString(), "module-crashed");
  EXPECT_EQ(shown(1)["sentence"].asString(), ended["message"].asString());
  EXPECT_EQ(shown(2)["outcome"].asString(), "updated");
}

TEST_F(UpdateHistory, HasEachPackageOfADriveWithItsKey) {
  fs::copy_file(VERIFIER_LIBRARY, "/usr/lib/libkZAQUser.so");
  writeFile("/usr/share/fw-update/keys/maker.pem", publicPem(testSigningKey("ed25519")));
  const std::string key(32, 'K');
  writeFile("/usr/share/fw-update/package.key", key);
  fs::permissions("/usr/share/fw-update/package.key", fs::perms(0600));
  installModule("libpanel");
  installModule("libwifi");
  writeFile("/opt/media/USBDriveA/tunerfw.bin",
            usbPackage(key, "2.0.0", std::string(20001, 't'), testSigningKey("ed25519"), "tunerfw"));
  writeFile("/opt/media/USBDriveA/panelfw.bin", "no package");

  run({"usb", "apply", "--key-file", "/usr/share/fw-update/package.key"});

  const Json::Value all = entries();
  ASSERT_EQ(all.size(), 3u);
  EXPECT_EQ(all[0]["way"].asString(), "usb");
  EXPECT_FALSE(all[0].isMember("module"));
  for (const Json::Value& part : {all[1], all[2]}) {
    const bool isTuner = part["module"] == "libtuner";
    EXPECT_EQ(part["run"].asInt(), 1);
    EXPECT_EQ(part["source"].asString(), "USB package");
    EXPECT_EQ(part["outcome"].asString(), isTuner ? "updated" : "refused-image");
    EXPECT_EQ(part["versionAfter"].asString(), isTuner ? "2.0.0" : "0.0.0");
    EXPECT_EQ(part["key"].asString().size(), isTuner ? 16u : 0u);
    EXPECT_EQ(part["image"].asString(),
              isTuner ? "/opt/media/USBDriveA/tunerfw.bin" : "/opt/media/USBDriveA/panelfw.bin");
  }
}

TEST_F(UpdateHistory, DoesNotKeepAnUpdateFromAnOrdinaryUser) {
  ASSERT_EQ(chmod("/var/lib/fw-update", 0555), 0);

  const Ended ended = run({"update", "libtuner"}, {{}, false});

  EXPECT_EQ(ended.exitCode, 0);
  EXPECT_EQ(ended.err, "");
  EXPECT_FALSE(exists(kHistoryFile));
}

TEST_F(UpdateHistory, IsNotForAnOrdinaryUserToRead) {
  ASSERT_EQ(run({"update", "libtuner"}).exitCode, 0);
  ASSERT_EQ(chmod(kHistoryFile, 0), 0);

  const Ended ended = run({"history"}, {{}, false});

  EXPECT_EQ(ended.exitCode, 8);
  EXPECT_THAT(ended.err, HasSubstr("cannot be read: Permission denied.\nRun the command as root."));
}

TEST_F(UpdateHistory, SaysThatADamagedFileWasSetAside) {
  writeFile(kHistoryFile, std::string(5000, 'x'));

  const Json::Value ended = document({"update", "libtuner"});

  EXPECT_EQ(ended["outcome"].asString(), "updated");
  EXPECT_THAT(ended["warnings"][0].asString(), HasSubstr("The history was damaged."));
  EXPECT_EQ(entries().size(), 1u);
  EXPECT_EQ(document({"history"})["damaged"].asString(), "/var/lib/fw-update/history.db.damaged");
}

TEST_F(UpdateHistory, IsCountedForMetricsWhenTheyAreSwitchedOn) {
  writeFile("/etc/fw-update/history.conf", "metrics = /tmp/fw_update.prom\n");

  ASSERT_EQ(run({"update", "libtuner"}).exitCode, 0);
  const std::string afterOne = readFile("/tmp/fw_update.prom");
  ASSERT_EQ(run({"update", "libtuner"}).exitCode, 3);

  EXPECT_THAT(afterOne, HasSubstr("fw_update_attempts_total{module=\"libtuner\",outcome=\"updated\"} 1\n"));
  EXPECT_THAT(afterOne, HasSubstr("fw_update_version_info{module=\"libtuner\",version=\"2.0.0\"} 1\n"));
  EXPECT_THAT(afterOne, HasSubstr("fw_update_lock_taken 0\n"));
  EXPECT_THAT(readFile("/tmp/fw_update.prom"),
              HasSubstr("fw_update_attempts_total{module=\"libtuner\",outcome=\"nothing-to-do\"} 1\n"));
}

TEST_F(UpdateHistory, SaysThatTheMetricsCannotBeWritten) {
  writeFile("/etc/fw-update/history.conf", "metrics = /tmp/nowhere/fw_update.prom\n");

  const Ended ended = run({"update", "libtuner"});

  EXPECT_EQ(ended.exitCode, 0);
  EXPECT_THAT(ended.err, HasSubstr("warning: The metrics /tmp/nowhere/fw_update.prom cannot be written"));
}

TEST_F(UpdateHistory, SaysWhichLineOfItsSettingsIsWrong) {
  writeFile("/etc/fw-update/history.conf", "max_entries = few\n");

  const Ended ended = run({"update", "libtuner"});

  EXPECT_EQ(ended.exitCode, 0);
  EXPECT_THAT(ended.err,
              HasSubstr("fw-update: warning: /etc/fw-update/history.conf, line 1: max_entries must be"));
}

}  // namespace
