// SPDX-License-Identifier: Apache-2.0
#include "report.h"

#include <gmock/gmock.h>

#include "commands/texts.h"
#include "messages.h"

namespace {

using ::testing::HasSubstr;
using ::testing::Not;

frame::Report refused() {
  frame::Report report = tool::reportOf({tool::Outcome::RefusedImage, "It is damaged.", "Install it again."});
  report.details["module"] = "libtuner";
  report.details["elapsedSeconds"] = 0.25;
  return report;
}

Json::Value documentOf(const frame::Report& report) {
  return frame::documentOf(report, "update");
}

TEST(JsonDocument, HasTheCommonMembersBesideTheCommandsOwn) {
  const Json::Value document = documentOf(refused());

  EXPECT_EQ(document["command"].asString(), "update");
  EXPECT_FALSE(document["ok"].asBool());
  EXPECT_EQ(document["outcome"].asString(), "refused-image");
  EXPECT_EQ(document["exitCode"].asInt(), 5);
  EXPECT_EQ(document["message"].asString(), "It is damaged.");
  EXPECT_EQ(document["remedy"].asString(), "Install it again.");
  EXPECT_EQ(document["module"].asString(), "libtuner");
  EXPECT_FALSE(document.isMember("log"));
}

TEST(JsonDocument, LeavesOutAnEmptyRemedy) {
  frame::Report report = refused();
  report.remedy.clear();

  EXPECT_FALSE(documentOf(report).isMember("remedy"));
}

TEST(JsonDocument, CarriesTheLibrarysMessages) {
  auto logged = message("Error: %s");
  logged.text = "Error: x";
  logged.function = "f";

  const Json::Value log = tool::toJson(tool::LogMessages{logged});

  ASSERT_EQ(log.size(), 1u);
  EXPECT_EQ(log[0]["text"].asString(), "Error: x");
  EXPECT_EQ(log[0]["function"].asString(), "f");
  EXPECT_EQ(log[0]["priority"].asInt(), 6);
}

TEST(JsonDocument, FitsOneLineForAStream) {
  const std::string line = tool::onOneLine(documentOf(refused()));

  EXPECT_EQ(line.find('\n'), line.size() - 1);
  EXPECT_THAT(line, HasSubstr("\"elapsedSeconds\":0.25"));
}

TEST(Table, AlignsItsColumns) {
  EXPECT_EQ(tool::table({{"A", "B", "C"}, {"long", "", "x"}, {"s", "t", ""}}, std::string::npos),
            "A     B  C\nlong     x\ns     t\n");
}

TEST(Table, BreaksTheLastColumnUnderItself) {
  EXPECT_EQ(tool::table({{"A", "REASON"}, {"b", "one two three"}}, 11), "A  REASON\nb  one two\n   three\n");
}

TEST(Table, LetsNoControlCharactersThrough) {
  EXPECT_THAT(tool::table({{"a\x1b[2J\n", "b"}}, 80), Not(HasSubstr("\x1b")));
}

TEST(WrappedText, KeepsWordsWholeAndWithinTheWidth) {
  EXPECT_EQ(tool::wrapped("aa bb cc", 5), "aa bb\ncc");
  EXPECT_EQ(tool::wrapped("a muchtoolong b", 5), "a\nmuchtoolong\nb");
  EXPECT_EQ(tool::wrapped("a b", std::string::npos), "a b");
}

TEST(LockStatusText, HasATableOfTheLocksUsersWhereThereAreSome) {
  frame::Report report = tool::reportOf({tool::Outcome::Ok, "The lock is free.", ""});
  report.details["value"] = 1;
  report.details["processes"] = Json::Value(Json::arrayValue);
  EXPECT_EQ(tool::lockStatusText(report), "The lock is free.\n");

  Json::Value user;
  user["pid"] = 7;
  user["user"] = "root";
  user["command"] = "app";
  report.details["processes"].append(user);

  EXPECT_THAT(tool::lockStatusText(report), HasSubstr("\nPID  USER  LOCK  COMMAND\n7    root"));
}

}  // namespace
