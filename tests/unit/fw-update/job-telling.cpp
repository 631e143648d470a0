// SPDX-License-Identifier: Apache-2.0
#include "service/job-telling.h"

#include <gmock/gmock.h>

#include <vector>

#include "service/document.h"

namespace {

using ::testing::AllOf;
using ::testing::HasSubstr;
using ::testing::MatchesRegex;
using ::testing::Not;
using tool::JobState;
using tool::Options;

Options optionsFor(const std::string& module) {
  Options options;
  options.module = module;
  return options;
}

// What is printed of these events.
std::string told(tool::JobTelling& telling, const std::vector<const char*>& events) {
  ::testing::internal::CaptureStdout();
  for (const char* event : events) {
    telling.take(tool::parsedDocument(event));
  }
  telling.finish();
  return ::testing::internal::GetCapturedStdout();
}

std::string told(const Options& options, const std::string& kind, const std::vector<const char*>& events) {
  return told(*tool::makeJobTelling(options, kind), events);
}

std::string ticked(tool::JobTelling& telling, const JobState& job) {
  ::testing::internal::CaptureStdout();
  telling.tick(job);
  return ::testing::internal::GetCapturedStdout();
}

constexpr char kStart[] = R"({"event":"start","module":"libtuner","caller":"upgrade-app"})";

TEST(JobTelling, TellsAnUpdateInLines) {
  const std::string lines =
      told(optionsFor("libtuner"), "update",
           {kStart, R"({"event":"progress","elapsedSeconds":0.1,"expectedSeconds":9000,"percent":3})",
            R"({"event":"progress","elapsedSeconds":0.2,"expectedSeconds":9000,"percent":4})",
            R"({"event":"progress","elapsedSeconds":0.3,"expectedSeconds":9000,"percent":31})",
            R"({"event":"verifying"})", R"({"event":"result"})"});

  EXPECT_THAT(lines, MatchesRegex("libtuner: update requested by upgrade-app\n"
                                  "libtuner: 3 %, [0-9]+ s of about 9000 s\n"
                                  "libtuner: 31 %, [0-9]+ s of about 9000 s\n"));
}

TEST(JobTelling, TellsNothingOfAnUpdateThatDidNotBegin) {
  EXPECT_EQ(told(optionsFor("libnothing"), "update", {R"({"event":"result"})"}), "");
}

TEST(JobTelling, TellsOfWaitingForTheLock) {
  const std::string lines =
      told(optionsFor("libtuner"), "update",
           {kStart, R"({"event":"waiting","elapsedSeconds":5})", R"({"event":"result"})"});

  EXPECT_THAT(lines, MatchesRegex(".*\nlibtuner: waiting for another update to finish, [0-9]+ s\n"));
}

TEST(JobTelling, LeavesOutWhatAModulePrintedInBetween) {
  Options options = optionsFor("libtuner");
  const auto telling = tool::makeJobTelling(options, "update");

  ::testing::internal::CaptureStdout();
  for (const char* line :
       {kStart, "", "{", "[]", R"({"event":{}})", R"({"event":"progress","percent":"x"})",
        R"({"event":"progress","percent":-1})", R"({"event":"progress","elapsedSeconds":[]})",
        R"({"event":"progress","expectedSeconds":{}})",
        R"({"event":"progress","elapsedSeconds":1,"percent":40})"}) {
    tool::takeLine(*telling, line);
  }
  telling->finish();

  EXPECT_THAT(::testing::internal::GetCapturedStdout(), HasSubstr("libtuner: 40 %"));
}

TEST(JobTelling, DoesNotBelieveMoreThanAll) {
  const std::string lines =
      told(optionsFor("libtuner"), "update",
           {kStart, R"({"event":"progress","elapsedSeconds":1,"percent":101})", R"({"event":"result"})"});

  EXPECT_THAT(lines, Not(HasSubstr("%")));
}

TEST(JobTelling, TellsOnePackageAfterTheOther) {
  const std::string lines = told(
      optionsFor(""), "usb-apply",
      {R"({"event":"start","module":"libtuner"})", R"({"event":"progress","elapsedSeconds":1,"percent":1})",
       R"({"event":"start","module":"libpanel"})", R"({"event":"progress","elapsedSeconds":1,"percent":1})"});

  EXPECT_THAT(lines, MatchesRegex("libtuner: 1 %, [0-9]+ s\nlibpanel: 1 %, [0-9]+ s\n"));
}

TEST(JobTelling, TellsARun) {
  const std::string lines = told(
      optionsFor(""), "update-all",
      {R"({"event":"start","expectedSeconds":10,"modules":[{"library":"libtuner","firmware":"tunerfw",)"
       R"("versionBefore":"1","due":true,"expectedSeconds":10},{"library":"libwifi","firmware":"wififw",)"
       R"("versionBefore":"2","due":false,"message":"It is active."}]})",
       R"({"event":"module-start","module":"libtuner","number":1,"count":1,"modulesLeft":1})",
       R"({"event":"progress","module":"libtuner","number":1,"count":1,"percent":50,"totalPercent":50,)"
       R"("secondsLeft":5,"elapsedSeconds":5,"expectedSeconds":9000,"givesUpAtSeconds":9002})",
       R"({"event":"module-end","module":"libtuner","number":1,"outcome":"updated","message":"It was updated."})"});

  EXPECT_THAT(lines, HasSubstr("libtuner  tunerfw   1        10 s      yes\n"
                               "libwifi   wififw    2        -         no: It is active.\n"
                               "1 module, about 10 s; power is held for at most 15 s.\n"));
  EXPECT_THAT(lines, HasSubstr(" s of about 9000 s; in total 50 %, about 5 s left\n1: It was updated.\n"));
}

TEST(JobTelling, TellsADownloadByItsBytes) {
  const std::string lines = told(optionsFor(""), "download",
                                 {R"({"event":"start","package":"wifiempfw"})",
                                  R"({"event":"progress","package":"wifiempfw","received":30,"total":100})",
                                  R"({"event":"progress","package":"wifiempfw","received":31,"total":100})"});

  EXPECT_EQ(lines, "wifiempfw: 30 %, 30 of 100 bytes\n");
}

TEST(JobTelling, HandsEventsOnAsTheyCome) {
  Options options = optionsFor("libtuner");
  options.ndjson = true;

  EXPECT_EQ(told(options, "update", {kStart, R"({"event":"x","a":[0.097]})", R"({"event":"result"})"}),
            "{\"caller\":\"upgrade-app\",\"event\":\"start\",\"module\":\"libtuner\"}\n"
            "{\"a\":[0.097],\"event\":\"x\"}\n");
}

TEST(JobTelling, IsSilentBeforeADocument) {
  Options options = optionsFor("libtuner");
  options.json = true;

  EXPECT_EQ(told(options, "update", {kStart, R"({"event":"progress","percent":3})"}), "");
}

TEST(WatchTelling, TellsWhatTheJobIsNow) {
  const auto telling = tool::makeWatchTelling(Options());
  JobState job;
  job.kind = "update-all";
  job.state = "queued";
  EXPECT_EQ(ticked(*telling, job), "");
  job.state = "updating";
  job.percent = 35;
  job.elapsedSeconds = 3;
  job.expectedSeconds = 9000;

  EXPECT_THAT(ticked(*telling, job), MatchesRegex("update-all: 35 %, [0-9]+ s of about 9000 s\n"));
  job.module = "libpanel";
  job.percent = 36;
  EXPECT_EQ(ticked(*telling, job), "");
  job.percent = 47;
  EXPECT_THAT(ticked(*telling, job), AllOf(HasSubstr("libpanel: 47 %, "), Not(HasSubstr("35"))));
  job.state = "done";
  EXPECT_EQ(ticked(*telling, job), "");
}

TEST(WatchTelling, SaysOverdueByTheClock) {
  const auto telling = tool::makeWatchTelling(Options());
  JobState job;
  job.module = "libpanel";
  job.state = "updating";
  job.elapsedSeconds = 50;
  job.expectedSeconds = 10;

  EXPECT_THAT(ticked(*telling, job), HasSubstr(" over the expected 10 s\n"));
}

}  // namespace
