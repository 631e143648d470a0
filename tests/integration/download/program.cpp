// SPDX-License-Identifier: Apache-2.0
// The command line of fw-download, and what it answers the platform library.
#include <fcntl.h>
#include <json/json.h>
#include <linux/securebits.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <sstream>

#include "download-test.h"
#include "temporary-mount.h"

namespace {

namespace fs = std::filesystem;
using ::testing::HasSubstr;
using ::testing::StartsWith;

class DownloadProgram : public DownloadTest {
 protected:
  static ProgramResult run(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), FW_DOWNLOAD_PROGRAM);
    return runProgram({arguments, "/", 0, {}});
  }
  // Its own words on standard output, as if that were the descriptor to answer on.
  static ProgramResult answer(const std::string& package) {
    return runProgram(
        {{"sh", "-c", "exec " FW_DOWNLOAD_PROGRAM " --answer-on=3 \"$0\" 3>&1 >/dev/null 2>&1", package},
         "/",
         0,
         {}});
  }
};

TEST_F(DownloadProgram, ExplainsItself) {
  const auto result = run({"--help"});

  EXPECT_EQ(result.exitCode, 0);
  EXPECT_THAT(result.output, HasSubstr("Usage: fw-download [OPTIONS] PACKAGE\n"));
  EXPECT_THAT(result.output, HasSubstr("becomes /opt/usr/apps/appbinarymanager/PACKAGE.img;\n"
                                       "/etc/fw-update/download.conf says where it comes from.\n"));
}

TEST_F(DownloadProgram, RefusesAWrongCommandLine) {
  configure("file:///tmp/served");
  for (const std::vector<std::string>& words : {std::vector<std::string>{},
                                                {"a", "b"},
                                                {"--unknown", "a"},
                                                {"--answer-on=x", "a"},
                                                {"--answer-on=2", "a"},
                                                {"--answer-on=-1", "a"},
                                                {"--answer-on=3x", "a"},
                                                {"--answer-on="}}) {
    const auto result = run(words);

    EXPECT_EQ(result.exitCode, 2) << ::testing::PrintToString(words);
    EXPECT_THAT(result.error, HasSubstr("Try: fw-download --help\n"));
  }
}

Json::Value documentIn(const ProgramResult& result) {
  Json::Value document;
  std::istringstream(result.output) >> document;
  return document;
}

TEST_F(DownloadProgram, TellsInJsonHowItEnded) {
  configure("file://" + serveFile(kWifi + ".img", makeImage(1000)));

  const Json::Value done = documentIn(run({kWifi, "--json"}));
  const Json::Value failed = documentIn(run({"absentempfw", "--json"}));
  const Json::Value usage = documentIn(run({"--json"}));

  EXPECT_EQ(done["ok"], true);
  EXPECT_EQ(done["outcome"], "ok");
  EXPECT_EQ(done["package"], kWifi);
  EXPECT_EQ(done["received"], 1000);
  EXPECT_EQ(failed["outcome"], "failed");
  EXPECT_EQ(failed["exitCode"], 1);
  EXPECT_EQ(failed["reason"], "not-found");
  EXPECT_EQ(failed["remedy"], "Check that the server offers the package.");
  EXPECT_THAT(failed["message"].asString(), StartsWith("absentempfw: "));
  EXPECT_EQ(usage["outcome"], "usage");
}

TEST_F(DownloadProgram, RefusesAnIdentifierThatIsNoName) {
  configure("file:///tmp/served");

  const auto result = run({"../wifiempfw"});

  EXPECT_EQ(result.exitCode, 1);
  EXPECT_THAT(result.error, HasSubstr("The package identifier must be 1 to 127 letters and digits."));
}

TEST_F(DownloadProgram, AnswersThatItDownloadsAndGoesOnAlone) {
  configure("file://" + serveFile(kWifi + ".img", makeImage(1000)));

  const auto result = answer(kWifi);

  EXPECT_EQ(result.exitCode, 0);
  EXPECT_EQ(result.output, "accepted\n");
  waitForEnd();
  EXPECT_EQ(readFile(kImage).size(), 1000U);
}

TEST_F(DownloadProgram, AnswersBeforeTheDownloadEnds) {
  OddServer server({{"", false}});
  configure(server.url(), "stall_timeout_s = 3\nmax_retries = 0");

  EXPECT_EQ(answer(kWifi).output, "accepted\n");

  EXPECT_TRUE(fwplatform::isDownloadRunning(kWifi));
  waitForEnd();
}

// Room for the lock and for the first status, not for another one beside it.
TEST_F(DownloadProgram, GoesOnWhenItsStatusCannotBeWritten) {
  configure("file://" + serveFile(kWifi + ".img", makeImage(1000)));
  fs::create_directories(fwplatform::kDownloadStatusDirectory);
  const TemporaryMount status = TemporaryMount::memory(fwplatform::kDownloadStatusDirectory, "nr_inodes=3");

  const auto result = runProgram({{FW_DOWNLOAD_PROGRAM, kWifi}, "/", 0, {"FW_UPDATE_LOG=stderr"}});

  EXPECT_EQ(result.exitCode, 0);
  EXPECT_EQ(readFile(kImage).size(), 1000U);
  EXPECT_THAT(result.error,
              HasSubstr("download of wifiempfw: its status cannot be written: No space left on device"));
}

TEST_F(DownloadProgram, AnswersWhyItDoesNot) {
  const auto result = answer(kWifi);

  EXPECT_EQ(result.exitCode, 1);
  EXPECT_THAT(result.output, StartsWith("/etc/fw-update/download.conf cannot be read"));
}

TEST_F(DownloadProgram, AnswersThatItIsDownloadedAlready) {
  const WebServer server({serveFile(kWifi + ".img", makeImage(500000)), 512, ""});
  configure(server.url());
  RunningProgram first = start();
  waitForPart(1);

  EXPECT_EQ(answer(kWifi).output, "accepted\n");

  EXPECT_EQ(first.wait().exitCode, 0);
}

// Who asked must not be waited for, and may have gone.
TEST_F(DownloadProgram, GoesOnWhenNobodyReadsItsAnswer) {
  configure("file://" + serveFile(kWifi + ".img", makeImage(1000)));

  const auto result = runProgram(
      {{"bash", "-c", "exec 3> >(exec true); wait $!; exec " FW_DOWNLOAD_PROGRAM " --answer-on=3 wifiempfw"},
       "/",
       0,
       {}});

  EXPECT_EQ(result.exitCode, 0);
  waitForEnd();
  EXPECT_EQ(readFile(kImage).size(), 1000U);
}

TEST_F(DownloadProgram, MakesFilesThatEverybodyMayReadAndNobodyElseWrite) {
  configure("file://" + serveFile(kWifi + ".img", makeImage(1000)));
  for (const std::string mask : {"0", "077"}) {
    fs::remove_all("/run/fw-download");
    fs::remove(kImage);

    const auto result =
        runProgram({{"sh", "-c", "umask " + mask + "; exec " FW_DOWNLOAD_PROGRAM " wifiempfw"}, "/", 0, {}});

    EXPECT_EQ(result.exitCode, 0);
    for (const std::string& file : {kImage, std::string("/run/fw-download/wifiempfw.json"),
                                    std::string("/run/fw-download/wifiempfw.lock")}) {
      struct stat status = {};
      ASSERT_EQ(stat(file.c_str(), &status), 0) << file;
      EXPECT_EQ(status.st_mode & 0777U, 0644U) << file << " with " << mask;
    }
  }
}

TEST_F(DownloadProgram, SaysThatTheDirectoryOfPackagesCannotBeWritten) {
  configure("file://" + serveFile(kWifi + ".img", makeImage(1000)));
  fs::create_directories("/run");
  writeFile("/run/fw-download", "in the way");

  const auto result = run({kWifi});

  EXPECT_EQ(result.exitCode, 1);
  EXPECT_THAT(result.error, HasSubstr("/run/fw-download cannot be used: "));
}

TEST_F(DownloadProgram, TellsTheLogHowItEnded) {
  configure("file://" + serveFile(kWifi + ".img", makeImage(1000)));
  const auto logged = [](const std::string& package) {
    return runProgram({{FW_DOWNLOAD_PROGRAM, package}, "/", 0, {"FW_UPDATE_LOG=stderr"}}).error;
  };

  EXPECT_THAT(logged(kWifi), HasSubstr("I FWUPDATE download of wifiempfw done\n"));
  EXPECT_THAT(logged("absentempfw"), HasSubstr("E FWUPDATE download of absentempfw failed: "));
}

TEST_F(DownloadProgram, TellsInJsonWhyItDoesNotBegin) {
  const Json::Value unconfigured = documentIn(run({kWifi, "--json"}));
  configure("file:///tmp/served");
  writeFile("/run/fw-download", "in the way");
  const Json::Value inTheWay = documentIn(run({kWifi, "--json"}));
  fs::remove("/run/fw-download");
  const TemporaryMount packages = TemporaryMount::memory(kPackages);
  ASSERT_EQ(mount(nullptr, kPackages.c_str(), nullptr, MS_REMOUNT | MS_RDONLY, nullptr), 0);
  const Json::Value readOnly = documentIn(run({kWifi, "--json"}));

  EXPECT_EQ(unconfigured["reason"], "configuration");
  EXPECT_EQ(inTheWay["reason"], "file-system");
  EXPECT_EQ(readOnly["reason"], "not-permitted");
  EXPECT_EQ(readOnly["remedy"], "Ask as root, or as the user that owns the packages.");
}

// A directory that the kernel lets nobody write to, not even root.
TEST_F(DownloadProgram, SaysWhoMayDownload) {
  configure("file:///tmp/served");
  ASSERT_EQ(chmod(kPackages.c_str(), 0555), 0);
  const int ownBits = prctl(PR_GET_SECUREBITS);
  ASSERT_EQ(prctl(PR_SET_SECUREBITS, ownBits | SECBIT_NOROOT), 0);  // modes bind root's programs, too

  const Json::Value result = documentIn(run({kWifi, "--json"}));

  ASSERT_EQ(prctl(PR_SET_SECUREBITS, ownBits), 0);

  EXPECT_EQ(result["reason"], "not-permitted");
  EXPECT_THAT(result["message"].asString(), HasSubstr("cannot be used: Permission denied."));
}

}  // namespace
