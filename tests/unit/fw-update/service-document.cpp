// SPDX-License-Identifier: Apache-2.0
#include "service/document.h"

#include <gmock/gmock.h>

#include "outcomes.h"

namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;

frame::Report reportOf(const char* document, const char* command) {
  return tool::reportOf(tool::parsedDocument(document), command);
}

TEST(ServiceDocument, BecomesTheReportThatItWasMadeOf) {
  frame::Report report(tool::Outcome::RefusedImage, "It is damaged.", "Install it again.");
  report.details["module"] = "libtuner";
  report.details["warnings"].append("The history is full.");
  const Json::Value document = frame::documentOf(report, "update");

  const frame::Report again = tool::reportOf(document, "update");

  EXPECT_EQ(frame::documentOf(again, "update"), document);
  EXPECT_EQ(again.ending, frame::Ending(tool::Outcome::RefusedImage));
  EXPECT_THAT(again.remarks, ElementsAre("warning: The history is full."));
  EXPECT_EQ(again.body, "");
}

TEST(ServiceDocument, KeepsEachOutcome) {
  for (const frame::OutcomeInfo& outcome : tool::kOutcomeTable) {
    Json::Value document;
    document["outcome"] = outcome.id;
    EXPECT_STREQ(tool::reportOf(document, "update").ending->id, outcome.id);
    EXPECT_EQ(tool::reportOf(document, "update").ending->exitCode, outcome.exitCode);
  }
}

TEST(ServiceDocument, KnowsEndsThatOnlyTheServiceHas) {
  const frame::Report report = reportOf(R"({"outcome":"interrupted","message":"It was cut off."})", "update");

  EXPECT_EQ(report.ending, frame::Ending(tool::ServiceOutcome::Interrupted));
  EXPECT_EQ(report.ending->exitCode, 1);
  EXPECT_EQ(report.message, "It was cut off.");
}

TEST(ServiceDocument, IsUnexpectedWhenItIsNone) {
  EXPECT_TRUE(tool::parsedDocument("{").isNull());
  EXPECT_TRUE(tool::parsedDocument("[1]").isNull());
  EXPECT_TRUE(tool::parsedDocument(std::string(5000, '[')).isNull());
  EXPECT_EQ(tool::reportOf(tool::parsedDocument(""), "list").ending,
            frame::Ending(tool::Outcome::Unexpected));
  EXPECT_EQ(reportOf(R"({"outcome":"splendid"})", "list").ending, frame::Ending(tool::Outcome::Unexpected));
}

TEST(ServiceDocument, HasTheTableOfItsCommand) {
  const char* const list =
      R"({"outcome":"ok","modules":[{"library":"libtuner","firmware":"tunerfw","version":"1","kind":"EXT"}]})";
  const char* const run =
      R"({"outcome":"updated","expectedSeconds":10,"elapsedSeconds":1,"modules":[{"library":"libtuner","due":true,)"
      R"("outcome":"updated","versionBefore":"1","versionAfter":"2","elapsedSeconds":0.5,"message":"Yes."},)"
      R"({"library":"libwifi","due":false,"outcome":"nothing-to-do"}]})";

  EXPECT_EQ(reportOf(list, "list").body,
            "LIBRARY   FIRMWARE  VERSION  KIND\nlibtuner  tunerfw   1        EXT\n");
  EXPECT_EQ(reportOf(list, "update").body, "");
  EXPECT_EQ(reportOf(run, "update-all").body,
            "LIBRARY   RESULT   VERSION  TIME   WHY\nlibtuner  updated  1 -> 2   0.5 s  Yes.\n");
  EXPECT_THAT(reportOf(R"({"outcome":"ok","entries":[]})", "history").body, HasSubstr("no such update"));
  EXPECT_EQ(reportOf(R"({"outcome":"not-known"})", "history show").body, "");
  EXPECT_EQ(reportOf(R"({"outcome":"not-permitted"})", "lock status").body, "");
}

}  // namespace
