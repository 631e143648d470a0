// SPDX-License-Identifier: Apache-2.0
#include "feedback.h"

#include <gmock/gmock.h>
#include <json/reader.h>
#include <json/value.h>

#include <sstream>

namespace {

using fleet::ddi::attributesText;
using fleet::ddi::confirmationText;
using fleet::ddi::Execution;
using fleet::ddi::Feedback;
using fleet::ddi::Finished;
using fleet::ddi::textOf;

Json::Value parsed(const std::string& text) {
  std::istringstream stream(text);
  Json::Value value;
  stream >> value;
  return value;
}

Json::Value detailsOf(const std::vector<std::string>& details, std::optional<int> code = std::nullopt) {
  return parsed(textOf({Execution::Closed, Finished::Failure, code, details, 0}))["status"]["details"];
}

TEST(FleetFeedback, IsTheDocumentThatServersKnow) {
  const Feedback feedback{
      Execution::Closed, Finished::Failure, 5, {"It failed.", "Try again."}, 1795348800123};

  EXPECT_EQ(textOf(feedback),
            R"({"status":{"code":5,"details":["It failed.","Try again."],"execution":"closed",)"
            R"("result":{"finished":"failure"}},"timestamp":1795348800123})");
}

TEST(FleetFeedback, HasAWordForEachExecution) {
  const std::pair<Execution, const char*> words[] = {
      {Execution::Download, "download"},     {Execution::Downloaded, "downloaded"},
      {Execution::Proceeding, "proceeding"}, {Execution::Scheduled, "scheduled"},
      {Execution::Resumed, "resumed"},       {Execution::Closed, "closed"},
      {Execution::Rejected, "rejected"}};
  for (const auto& [execution, word] : words) {
    EXPECT_EQ(parsed(textOf({execution, Finished::None, {}, {}, 0}))["status"]["execution"], word);
  }
}

TEST(FleetFeedback, HasAResultOnlyWhenItCloses) {
  const auto resultOf = [](Execution execution, Finished finished) {
    return parsed(textOf({execution, finished, {}, {}, 0}))["status"]["result"]["finished"].asString();
  };

  EXPECT_EQ(resultOf(Execution::Closed, Finished::Success), "success");
  EXPECT_EQ(resultOf(Execution::Closed, Finished::Failure), "failure");
  EXPECT_EQ(resultOf(Execution::Downloaded, Finished::Success), "none");
  EXPECT_EQ(resultOf(Execution::Proceeding, Finished::Failure), "none");
}

TEST(FleetFeedback, NeverClosesWithoutAResult) {
  EXPECT_EQ(parsed(textOf({Execution::Closed, Finished::None, {}, {}, 0}))["status"]["result"]["finished"],
            "failure");
}

TEST(FleetFeedback, HasFiftyMessagesAtMostAndSaysHowManyMoreThereWere) {
  const std::vector<std::string> fifty(50, "line");
  const std::vector<std::string> sixty(60, "line");

  EXPECT_EQ(detailsOf(fifty).size(), 50U);
  EXPECT_EQ(detailsOf(fifty)[49], "line");
  EXPECT_EQ(detailsOf(sixty).size(), 50U);
  EXPECT_EQ(detailsOf(sixty)[48], "line");
  EXPECT_EQ(detailsOf(sixty)[49], "11 more messages are not told.");
}

TEST(FleetFeedback, CountsTheCodeAsAMessage) {
  EXPECT_EQ(detailsOf(std::vector<std::string>(50, "line"), 3).size(), 49U);
}

TEST(FleetFeedback, PartsALongMessageAsServersCountIt) {
  const std::string wide = "\xF0\x9F\x93\xBA";  // two in UTF-16, four bytes

  EXPECT_EQ(detailsOf({std::string(512, 'a')}).size(), 1U);
  ASSERT_EQ(detailsOf({std::string(513, 'a')}).size(), 2U);
  EXPECT_EQ(detailsOf({std::string(513, 'a')})[1], "a");
  ASSERT_EQ(detailsOf({std::string(511, 'a') + wide}).size(), 2U);
  EXPECT_EQ(detailsOf({std::string(511, 'a') + wide})[1], wide);
  EXPECT_EQ(detailsOf({std::string(100 * 512, 'a')}).size(), 50U);
}

TEST(FleetFeedback, LeavesEmptyMessagesOut) {
  EXPECT_EQ(detailsOf({"", "a", ""}).size(), 1U);
}

TEST(FleetFeedback, IsTextWithoutMarkupWhateverAModuleSaid) {
  EXPECT_EQ(detailsOf({"<new> & \x01\xFFok"})[0], "(new) + \\x01\\xFFok");
}

TEST(FleetFeedback, IsAscii) {
  const std::string text = textOf({Execution::Closed, Finished::Failure, {}, {"caf\xC3\xA9"}, 0});

  EXPECT_EQ(text.find_first_not_of(" !\"#$%&'()*+,-./0123456789:;<=>?@ABCDEFGHIJKLMNOPQRSTUVWXYZ[\\]^_`"
                                   "abcdefghijklmnopqrstuvwxyz{|}~"),
            std::string::npos);
  EXPECT_EQ(detailsOf({"caf\xC3\xA9"})[0], "caf\xC3\xA9");
}

TEST(FleetConfirmationAnswer, SaysYesOrNo) {
  EXPECT_EQ(confirmationText(true, {}), R"({"confirmation":"confirmed","details":[]})");
  EXPECT_EQ(confirmationText(false, {"The owner declined."}),
            R"({"confirmation":"denied","details":["The owner declined."]})");
}

TEST(FleetAttributes, AreTextsOfTheSet) {
  EXPECT_EQ(attributesText({{"model", "T1"}, {"serial", "4711"}}),
            R"({"data":{"model":"T1","serial":"4711"},"mode":"replace"})");
}

TEST(FleetAttributes, AreNotToldWhenThereAreNone) {
  EXPECT_EQ(attributesText({}), "");
  EXPECT_EQ(attributesText({{"", "x"}}), "");
}

TEST(FleetAttributes, StayWithinTheServersLimits) {
  std::map<std::string, std::string> many;
  for (int number = 0; number < 120; ++number) {
    many["name" + std::to_string(number)] = std::string(200, 'v');
  }

  const Json::Value data = parsed(attributesText(many))["data"];

  EXPECT_EQ(data.size(), 100U);
  EXPECT_EQ(data["name0"].asString(), std::string(128, 'v'));
  EXPECT_EQ(parsed(attributesText({{"caf\xC3\xA9", "a\nb"}}))["data"]["caf??"], "a?b");
}

}  // namespace
