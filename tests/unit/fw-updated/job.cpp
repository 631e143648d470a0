// SPDX-License-Identifier: Apache-2.0
#include "job.h"

#include <gmock/gmock.h>

#include "json-text.h"

namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using updated::Job;
using updated::Kind;
using updated::State;

Job jobOf(Kind kind, const std::string& module = "") {
  Job job;
  job.number = 7;
  job.request.kind = kind;
  job.request.module = module;
  job.module = module;
  return job;
}

void happens(Job& job, const std::string& event) {
  updated::take(job, updated::parsedObject(event));
}

State stateAfter(const std::string& event) {
  Job job = jobOf(Kind::Update, "libtuner");
  happens(job, event);
  return job.state;
}

TEST(ServiceJob, KnowsItsKindsByTheirNames) {
  for (const Kind kind : {Kind::Update, Kind::UpdateAll, Kind::UsbApply, Kind::UsbEstimate, Kind::Download}) {
    EXPECT_EQ(updated::kindOf(updated::nameOf(kind)), kind);
  }
  EXPECT_STREQ(updated::nameOf(Kind::UsbApply), "usb-apply");
  EXPECT_STREQ(updated::nameOf(State::WaitingForLock), "waiting-for-lock");
  EXPECT_STREQ(updated::nameOf(State::Done), "done");
  EXPECT_EQ(updated::kindOf("Update"), std::nullopt);
}

TEST(ServiceJob, HasTheStateThatAnEventTells) {
  EXPECT_EQ(stateAfter(R"({"event":"start"})"), State::Checking);
  EXPECT_EQ(stateAfter(R"({"event":"module-start"})"), State::Checking);
  EXPECT_EQ(stateAfter(R"({"event":"waiting"})"), State::WaitingForLock);
  EXPECT_EQ(stateAfter(R"({"event":"progress"})"), State::Updating);
  EXPECT_EQ(stateAfter(R"({"event":"overdue"})"), State::Updating);
  EXPECT_EQ(stateAfter(R"({"event":"verifying"})"), State::Verifying);
  EXPECT_EQ(stateAfter(R"({"event":"result"})"), State::Done);
  EXPECT_EQ(stateAfter(R"({"event":"goes-on"})"), State::Queued);
  EXPECT_EQ(stateAfter(R"({"event":7})"), State::Queued);
}

TEST(ServiceJob, StaysOverdueAsLongAsItIsAtWork) {
  Job job = jobOf(Kind::Update, "libtuner");

  happens(job, R"({"event":"overdue","percent":40,"expectedSeconds":10})");
  happens(job, R"({"event":"progress","percent":50})");

  EXPECT_TRUE(job.isOverdue);
  EXPECT_EQ(job.sentence, "It is at work, and over the expected time.");
  EXPECT_EQ(job.percent, 50);
  EXPECT_EQ(job.expectedSeconds, 10u);
  happens(job, R"({"event":"module-start","module":"libpanel"})");
  EXPECT_FALSE(job.isOverdue);
  EXPECT_EQ(job.module, "libpanel");
}

TEST(ServiceJob, TellsThePercentOfTheWholeRun) {
  Job job = jobOf(Kind::UpdateAll);

  happens(job, R"({"event":"progress","module":"libwifi","percent":80,"totalPercent":20})");

  EXPECT_EQ(job.percent, 20);
  EXPECT_EQ(job.module, "libwifi");
}

TEST(ServiceJob, EndsAsTheResultSays) {
  Job job = jobOf(Kind::Update, "libtuner");
  happens(job, R"({"event":"progress","percent":40})");

  happens(job, R"({"event":"result","outcome":"updated","exitCode":0,"message":"Done.","versionBefore":"1",)"
               R"("versionAfter":"2"})");

  EXPECT_TRUE(job.isDone());
  EXPECT_TRUE(job.ended.has_value());
  EXPECT_EQ(job.outcome, "updated");
  EXPECT_EQ(job.exitCode, 0);
  EXPECT_EQ(job.percent, 100);
  EXPECT_EQ(job.sentence, "Done.");
  EXPECT_EQ(job.versionBefore, "1");
  EXPECT_EQ(job.versionAfter, "2");
  EXPECT_FALSE(updated::parsedObject(job.document).isMember("event"));
  EXPECT_EQ(updated::parsedObject(job.document)["outcome"].asString(), "updated");
}

TEST(ServiceJob, KeepsItsPercentWhenItFails) {
  Job job = jobOf(Kind::Update, "libtuner");
  happens(job, R"({"event":"progress","percent":40})");

  happens(job,
          R"({"event":"result","outcome":"module-failed","exitCode":6,"message":"No.","remedy":"Try."})");

  EXPECT_EQ(job.percent, 40);
  EXPECT_EQ(job.exitCode, 6);
  EXPECT_EQ(job.remedy, "Try.");
}

// The history may say otherwise what the command could not say to its end.
TEST(ServiceJob, HasNoRemedyOfAnEarlierEnd) {
  Job job = jobOf(Kind::Update, "libtuner");
  happens(job,
          R"({"event":"result","outcome":"module-failed","exitCode":6,"message":"No.","remedy":"Try."})");

  updated::end(job, "updated", 0, "It was updated.", "");

  EXPECT_EQ(job.outcome, "updated");
  EXPECT_EQ(job.remedy, "");
}

TEST(ServiceJob, DoesNotBelieveMoreThanAll) {
  Job job = jobOf(Kind::Update, "libtuner");
  happens(job, R"({"event":"progress","percent":40})");

  happens(job, R"({"event":"progress","percent":101})");
  happens(job, R"({"event":"progress","percent":-2})");

  EXPECT_EQ(job.percent, 40);
}

TEST(ServiceJob, TakesNothingOfTheWrongType) {
  Job job = jobOf(Kind::Update, "libtuner");

  happens(job, R"({"event":"progress","percent":"x","module":7,"expectedSeconds":-1})");

  EXPECT_EQ(job.percent, -1);
  EXPECT_EQ(job.module, "libtuner");
  EXPECT_EQ(job.expectedSeconds, 0u);
}

TEST(ServiceJob, EndsInTheServicesOwnWords) {
  Job job = jobOf(Kind::Update, "libtuner");

  updated::end(job, "stopped", 1, "It was cancelled.", "");

  const Json::Value document = updated::parsedObject(job.document);
  EXPECT_EQ(job.outcome, "stopped");
  EXPECT_EQ(job.exitCode, 1);
  EXPECT_EQ(document["command"].asString(), "update");
  EXPECT_EQ(document["module"].asString(), "libtuner");
  EXPECT_FALSE(document["ok"].asBool());
  EXPECT_FALSE(document.isMember("remedy"));
}

TEST(ServiceJob, NamesThePropertiesThatChanged) {
  const Job before = jobOf(Kind::Update, "libtuner");
  Job after = before;

  EXPECT_THAT(updated::changes(before, after), IsEmpty());
  after.state = State::Updating;
  after.percent = 3;
  after.isOverdue = true;

  EXPECT_THAT(updated::changes(before, after), ElementsAre("State", "Percent", "Overdue"));
  after = before;
  updated::end(after, "stopped", 1, "No.", "Try.");
  EXPECT_THAT(updated::changes(before, after),
              ElementsAre("State", "Outcome", "ExitCode", "Sentence", "Remedy", "Document"));
}

TEST(ServiceJob, CountsNoTimeBeforeItBegins) {
  Job job = jobOf(Kind::Update);

  EXPECT_EQ(job.elapsedSeconds(), 0);
  job.began = Job::Clock::now();
  job.ended = *job.began + std::chrono::milliseconds(2500);

  EXPECT_DOUBLE_EQ(job.elapsedSeconds(), 2.5);
}

}  // namespace
