// SPDX-License-Identifier: Apache-2.0
// fw-update download, with example modules.
#include <json/json.h>

#include <filesystem>
#include <memory>
#include <sstream>

#include "download-test.h"

namespace {

namespace fs = std::filesystem;
using ::testing::ElementsAre;
using ::testing::EndsWith;
using ::testing::HasSubstr;

Json::Value parse(const std::string& text) {
  std::istringstream stream(text);
  Json::Value value;
  stream >> value;
  return value;
}

class DownloadCommand : public DownloadTest {
 protected:
  void SetUp() override {
    DownloadTest::SetUp();
    for (const std::string module : {"libwifi.so", "libtuner.so"}) {
      fs::copy_file(FW_MODULES_DIRECTORY "/" + module, "/prd/usr/fwupdate/controls/" + module);
    }
  }

  static ProgramResult tool(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), {FW_UPDATE_TOOL, "download"});
    return runProgram({arguments, "/", 0, {"FW_UPDATE_LOG=none"}});
  }
};

TEST_F(DownloadCommand, ReturnsWhenTheDownloadIsRequested) {
  const std::string image = makeImage(500000);
  const WebServer server({serveFile(kWifi + ".img", image), 512, ""});
  configure(server.url());

  const auto result = tool({"libwifi"});

  EXPECT_EQ(result.exitCode, 0) << result.error;
  EXPECT_EQ(result.output, "The download of wifiempfw was requested.\n");
  EXPECT_FALSE(exists(kImage));
  waitForEnd();
  EXPECT_TRUE(readFile(kImage) == image);
}

TEST_F(DownloadCommand, WaitsAndShowsProgress) {
  const WebServer server({serveFile(kWifi + ".img", makeImage(1000000)), 1024, ""});
  configure(server.url());

  const auto result = tool({"libwifi", "--wait"});

  EXPECT_EQ(result.exitCode, 0) << result.error;
  EXPECT_THAT(result.output, HasSubstr(" of 1000000 bytes\n"));
  EXPECT_THAT(result.output, EndsWith("wifiempfw was downloaded (1000000 bytes).\n"));
  EXPECT_EQ(readFile(kImage).size(), 1000000U);
}

TEST_F(DownloadCommand, TellsProgressInLinesOfJson) {
  const WebServer server({serveFile(kWifi + ".img", makeImage(1000000)), 1024, ""});
  configure(server.url());

  const auto result = tool({"libwifi", "--wait", "--progress", "ndjson"});

  std::vector<Json::Value> events;
  std::istringstream lines(result.output);
  for (std::string line; std::getline(lines, line);) {
    events.push_back(parse(line));
  }
  ASSERT_GE(events.size(), 3U) << result.output;
  EXPECT_EQ(events.front()["event"], "start");
  EXPECT_EQ(events[1]["event"], "progress");
  EXPECT_EQ(events[1]["total"], 1000000);
  EXPECT_LT(events[1]["percent"].asUInt(), 100U);
  EXPECT_EQ(events.back()["event"], "result");
  EXPECT_EQ(events.back()["ok"], true);
}

TEST_F(DownloadCommand, SaysWhyADownloadFailed) {
  OddServer server({{httpAnswer("404 Not Found", {"Content-Length: 0"}, "")}});
  configure(server.url());

  const auto result = tool({"libwifi", "--wait"});

  EXPECT_EQ(result.exitCode, 11);
  EXPECT_THAT(result.error,
              HasSubstr("fw-update: wifiempfw was not downloaded: The server does not give out"));
  EXPECT_THAT(result.error, HasSubstr("it answered 404.\nCheck that the server offers the package.\n"));
}

TEST_F(DownloadCommand, SaysWhyARequestWasRefused) {
  const auto result = tool({"libwifi"});

  EXPECT_EQ(result.exitCode, 11);
  EXPECT_THAT(result.error,
              HasSubstr("wifiempfw is not downloaded: /etc/fw-update/download.conf cannot be read"));
}

TEST_F(DownloadCommand, AllAsksForEveryModule) {
  const std::string directory = serveFile(kWifi + ".img", makeImage(1000));
  serveFile("tunerempfw.img", makeImage(2000));
  configure("file://" + directory);

  const auto result = tool({"--all", "--wait", "--json"});

  const Json::Value document = parse(result.output);
  EXPECT_EQ(result.exitCode, 0) << result.error;
  EXPECT_EQ(document["packages"].size(), 2U);
  EXPECT_THAT(files(), ElementsAre("tunerempfw.img", "wifiempfw.img"));
}

TEST_F(DownloadCommand, AllHasNothingToDoWhereNoModuleHasAPackage) {
  fs::remove("/prd/usr/fwupdate/controls/libwifi.so");
  fs::rename("/prd/usr/fwupdate/controls/libtuner.so", "/prd/usr/fwupdate/controls/libEXT-tuner.so");

  const auto result = tool({"--all"});

  EXPECT_EQ(result.exitCode, 3) << result.error;
  EXPECT_EQ(result.output, "No module has an extension package.\n");
}

TEST_F(DownloadCommand, OneFailureOfManyDecidesTheExitCode) {
  configure("file://" + serveFile(kWifi + ".img", makeImage(1000)));

  const auto result = tool({"libwifi", "libtuner", "--wait", "--json"});

  const Json::Value document = parse(result.output);
  EXPECT_EQ(result.exitCode, 11);
  EXPECT_EQ(document["outcome"], "download-failed");
  EXPECT_EQ(document["packages"][0]["outcome"], "ok");
  EXPECT_EQ(document["packages"][1]["reason"], "not-found");
  EXPECT_EQ(document["packages"][1]["package"], "tunerempfw");
}

TEST_F(DownloadCommand, NoticesADownloadThatWasKilled) {
  OddServer server({{httpAnswer("200 OK", {"Content-Length: 1000", "ETag: \"x\""}, "some"), false}});
  configure(server.url());
  RunningProgram download = start();
  waitForPart(4);
  RunningProgram waiting({{FW_UPDATE_TOOL, "download", "libwifi", "--wait", "--progress", "ndjson"},
                          "/",
                          0,
                          {"FW_UPDATE_LOG=none"}});
  while (waiting.readLine().find("\"progress\"") == std::string::npos) {
  }

  download.kill(SIGKILL);
  download.wait();

  const auto result = waiting.wait();
  EXPECT_EQ(result.exitCode, 11);
  EXPECT_THAT(result.output, HasSubstr("The download of wifiempfw was broken off."));
}

// On a set that has this platform in the place of the one of ordinary Linux.
void expectThatNothingIsKnown(const std::string& platformDirectory) {
  const auto result = runProgram({{FW_UPDATE_TOOL, "download", "libwifi", "--wait", "--json"},
                                  "/",
                                  0,
                                  {"LD_LIBRARY_PATH=" + platformDirectory}});

  const Json::Value document = parse(result.output);
  EXPECT_EQ(result.exitCode, 1) << result.error;
  EXPECT_EQ(document["outcome"], "not-known") << result.output;
  EXPECT_EQ(document["message"],
            "The download of wifiempfw was requested, but this set does not tell how it goes.");
  EXPECT_EQ(document["packages"][0]["outcome"], "not-known");
}

TEST_F(DownloadCommand, CannotWaitOnAPlatformThatKnowsNothing) {
  expectThatNothingIsKnown(MAKERS_PLATFORM_DIRECTORY);
}

TEST_F(DownloadCommand, CannotWaitOnAPlatformWithoutTheCall) {
  expectThatNothingIsKnown(UNTELLING_PLATFORM_DIRECTORY);
}

TEST_F(DownloadCommand, RefusesAWrongCommandLine) {
  EXPECT_EQ(tool({}).exitCode, 2);
  EXPECT_EQ(tool({"libwifi", "--all"}).exitCode, 2);
  EXPECT_EQ(tool({"libwifi", "--progress", "ndjson"}).exitCode, 2);
  EXPECT_EQ(tool({"libnone"}).exitCode, 4);
}

}  // namespace
