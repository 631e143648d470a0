#include "command-line.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <ostream>
#include <sstream>

#include "commands.h"

namespace tool {
void PrintTo(const Command& command, std::ostream* stream) {
  *stream << command.name;
}
}  // namespace tool

namespace {

using ::testing::HasSubstr;
using tool::Ended;
using tool::Options;

std::variant<Options, Ended> parse(std::vector<const char*> arguments) {
  arguments.insert(arguments.begin(), "fw-update");
  return tool::parseCommandLine(static_cast<int>(arguments.size()), arguments.data());
}

Options options(std::vector<const char*> arguments) {
  return std::get<Options>(parse(std::move(arguments)));
}

Ended usageError(std::vector<const char*> arguments) {
  const Ended ended = std::get<Ended>(parse(std::move(arguments)));
  EXPECT_TRUE(ended.usageError);
  return ended;
}

std::string output(std::vector<const char*> arguments) {
  ::testing::internal::CaptureStdout();
  EXPECT_FALSE(std::get<Ended>(parse(std::move(arguments))).usageError);
  return ::testing::internal::GetCapturedStdout();
}

TEST(CommandLine, AsksAsTheUpgradeApplicationByDefault) {
  const Options update = options({"update", "libtuner"});

  EXPECT_STREQ(update.command->name, "update");
  EXPECT_EQ(update.module, "libtuner");
  EXPECT_STREQ(update.caller->name, "upgrade-app");
  EXPECT_EQ(update.requestData(), "");
  EXPECT_FALSE(update.json || update.ndjson || update.log);
}

TEST(CommandLine, TakesOutputOptionsBeforeAndAfterTheCommand) {
  EXPECT_TRUE(options({"--json", "list"}).json);
  EXPECT_TRUE(options({"list", "--json"}).json);
  EXPECT_TRUE(options({"info", "--log", "x"}).log);
  EXPECT_TRUE(options({"update", "x", "--progress", "ndjson"}).ndjson);
}

TEST(CommandLine, KnowsEveryCaller) {
  for (const fwcallers::Caller& caller : fwcallers::kCallers) {
    if (caller.name != nullptr) {
      EXPECT_EQ(options({"update", "x", "--caller", caller.name}).caller, &caller);
    }
  }
}

TEST(CommandLine, SendsTheFixedDataOfFactoryAutomation) {
  EXPECT_EQ(options({"pending", "--caller", "factory-automation"}).requestData(), "FACTORY_AUTOMATION");
  EXPECT_EQ(options({"pending", "--caller", "debug", "--data", "USB"}).requestData(), "USB");
  EXPECT_THAT(usageError({"update", "x", "--caller", "factory-automation", "--data", "y"})
                  .usageError->finding.message,
              HasSubstr("fixed data"));
}

TEST(CommandLine, RefusesDataThatWouldBeCut) {
  EXPECT_EQ(options({"update", "x", "--data", std::string(127, 'd').c_str()}).data.size(), 127u);
  EXPECT_THAT(
      usageError({"update", "x", "--data", std::string(128, 'd').c_str()}).usageError->finding.message,
      HasSubstr("127"));
}

TEST(CommandLine, NamesWhatIsWrong) {
  EXPECT_EQ(usageError({"bogus"}).usageError->finding.message, "There is no command bogus.");
  EXPECT_THAT(usageError({"update", "x", "--caller", "me"}).usageError->finding.message,
              HasSubstr("no caller me"));
  EXPECT_THAT(usageError({"update"}).usageError->finding.message, HasSubstr("NAME"));
  EXPECT_THAT(usageError({"update", "x", "--progress", "xml"}).usageError->finding.message, HasSubstr("xml"));
  EXPECT_EQ(usageError({"update"}).usageError->finding.remedy, "Try: fw-update update --help");
}

TEST(CommandLine, AnswersUsageErrorsInJsonWhenItWasAskedFor) {
  EXPECT_TRUE(usageError({"update", "--json"}).json);
  EXPECT_TRUE(usageError({"update", "--progress", "ndjson"}).json);
  EXPECT_FALSE(usageError({"update"}).json);
}

TEST(CommandLine, TellsItsVersion) {
  EXPECT_THAT(output({"--version"}), HasSubstr("fw-update 1."));
}

TEST(CommandLine, TakesCommandsOfAGroup) {
  const Options apply = options({"usb", "apply", "/packages", "--key-file", "package.key", "--json"});

  EXPECT_STREQ(apply.command->name, "usb apply");
  EXPECT_EQ(apply.directory, "/packages");
  EXPECT_EQ(apply.keyFile, "package.key");
  EXPECT_TRUE(apply.json);
  EXPECT_EQ(options({"usb", "estimate", "--key-file", "package.key"}).directory, "");
}

TEST(CommandLine, PointsToTheHelpOfTheCommandOfAGroup) {
  EXPECT_EQ(usageError({"usb", "apply"}).usageError->finding.remedy, "Try: fw-update usb apply --help");
  EXPECT_EQ(usageError({"usb"}).usageError->finding.remedy, "Try: fw-update usb --help");
  EXPECT_EQ(usageError({"usb", "format"}).usageError->finding.outcome, tool::Outcome::Usage);
}

class CommandHelp : public ::testing::TestWithParam<tool::Command> {};

TEST_P(CommandHelp, FitsAScreenWithAnExampleAndTheExitCodes) {
  std::string name = GetParam().name;  // maybe of two words
  const auto blank = std::min(name.find(' '), name.size());
  const std::string second = name.substr(std::min(blank + 1, name.size()));
  name.resize(blank);
  std::vector<const char*> words = {name.c_str(), second.c_str(), "--help"};
  if (second.empty()) {
    words.erase(words.begin() + 1);
  }
  const std::string help = output(words);

  EXPECT_LE(std::count(help.begin(), help.end(), '\n'), 24);
  std::istringstream lines(help);
  for (std::string line; std::getline(lines, line);) {
    EXPECT_LE(line.size(), 80u) << line;
  }
  EXPECT_THAT(help, HasSubstr(std::string("Example: ") + GetParam().example));
  for (const tool::OutcomeInfo& info : tool::kOutcomeTable) {
    EXPECT_THAT(help, HasSubstr(" " + std::to_string(info.exitCode) + " "));
  }
}

INSTANTIATE_TEST_SUITE_P(Every, CommandHelp, ::testing::ValuesIn(tool::kCommands), [](const auto& test) {
  std::string name = test.param.name;
  std::replace_if(
      name.begin(), name.end(), [](char c) { return c == ' ' || c == '-'; }, '_');
  return name;
});

}  // namespace
