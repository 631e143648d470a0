// SPDX-License-Identifier: Apache-2.0
#include "command-line.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <cerrno>
#include <new>
#include <ostream>
#include <sstream>
#include <system_error>

#include "commands.h"

namespace {

using ::testing::HasSubstr;
using tool::Options;

struct Line {
  Options options;
  std::string command;
  std::optional<frame::Report> problem;
  bool json = false;
};

Line parse(std::vector<const char*> words) {
  words.insert(words.begin(), "fw-update");
  Line line;
  const frame::BoundProgram bound = frame::bind(tool::program(), line.options);
  const frame::Parsed parsed = frame::parse(bound, static_cast<int>(words.size()), words.data());
  line.command = parsed.command != nullptr ? parsed.command->info.name : "";
  line.problem = parsed.problem;
  line.json = parsed.json;
  return line;
}

Options options(std::vector<const char*> words) {
  const Line line = parse(std::move(words));
  EXPECT_FALSE(line.problem) << line.problem->message;
  return line.options;
}

Line usageError(std::vector<const char*> words) {
  const Line line = parse(std::move(words));
  EXPECT_TRUE(line.problem);
  return line;
}

std::string output(std::vector<const char*> words) {
  ::testing::internal::CaptureStdout();
  EXPECT_FALSE(parse(std::move(words)).problem);
  return ::testing::internal::GetCapturedStdout();
}

TEST(CommandLine, TakesWhatTheServiceCanDo) {
  EXPECT_TRUE(options({"update", "libtuner", "--service"}).service);
  EXPECT_EQ(options({"list", "--service", "--bus", "unix:path=/b"}).bus, "unix:path=/b");
  EXPECT_TRUE(options({"usb", "apply", "--service"}).service);
  EXPECT_TRUE(options({"download", "libtuner", "--wait", "--service"}).service);
  EXPECT_TRUE(options({"jobs", "--bus", "unix:path=/b"}).service);
  EXPECT_EQ(options({"watch"}).number, 0u);
  EXPECT_EQ(options({"cancel", "3"}).number, 3u);
  EXPECT_FALSE(options({"list"}).service);
}

TEST(CommandLine, RefusesWhatTheServiceCannotDo) {
  const std::vector<std::vector<const char*>> lines = {
      {"list", "--service", "--log"},
      {"update", "libtuner", "--service", "--isolated"},
      {"update-all", "--service", "--dry-run"},
      {"usb", "apply", "--service", "--key-file", "k"},
      {"usb", "apply", "--service", "--allow-rollback"},
      {"download", "libtuner", "--service"},
      {"download", "--all", "--wait", "--service"},
      {"download", "libtuner", "libwifi", "--wait", "--service"},
      {"list", "--bus", "unix:path=/b"},
      {"info", "libtuner", "--service"},
      {"cancel"},
      {"watch", "0"}};
  for (const auto& words : lines) {
    EXPECT_EQ(usageError(words).command, "") << words.back();
  }
  EXPECT_EQ(usageError({"usb", "apply"}).problem->message, "--key-file is required");
  EXPECT_EQ(usageError({"jobs", "--log"}).problem->message,
            "--log: the library's log is where the service runs");
}

TEST(CommandLine, KnowsACommandThatHasCommandsOfItsOwn) {
  const Options history = options({"history", "--module", "libtuner", "--failed"});
  const Options shown = options({"history", "show", "12"});

  EXPECT_EQ(parse({"history"}).command, "history");
  EXPECT_EQ(history.module, "libtuner");
  EXPECT_TRUE(history.failedOnly);
  EXPECT_EQ(parse({"history", "show", "12"}).command, "history show");
  EXPECT_EQ(shown.number, 12u);
  usageError({"history", "show"});
  usageError({"history", "show", "0"});
  usageError({"history", "12"});
}

TEST(CommandLine, AsksAsTheUpgradeApplicationByDefault) {
  const Options update = options({"update", "libtuner"});

  EXPECT_EQ(parse({"update", "libtuner"}).command, "update");
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
  EXPECT_THAT(usageError({"update", "x", "--caller", "factory-automation", "--data", "y"}).problem->message,
              HasSubstr("fixed data"));
}

TEST(CommandLine, RefusesDataThatWouldBeCut) {
  EXPECT_EQ(options({"update", "x", "--data", std::string(127, 'd').c_str()}).data.size(), 127u);
  EXPECT_THAT(usageError({"update", "x", "--data", std::string(128, 'd').c_str()}).problem->message,
              HasSubstr("127"));
}

TEST(CommandLine, NamesWhatIsWrong) {
  EXPECT_EQ(usageError({"bogus"}).problem->message, "there is no command bogus");
  EXPECT_THAT(usageError({"update", "x", "--caller", "me"}).problem->message, HasSubstr("no caller me"));
  EXPECT_THAT(usageError({"update"}).problem->message, HasSubstr("NAME"));
  EXPECT_THAT(usageError({"update", "x", "--progress", "xml"}).problem->message, HasSubstr("xml"));
  EXPECT_EQ(usageError({"update"}).problem->remedy, "Try: fw-update update --help");
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

  EXPECT_EQ(parse({"usb", "apply", "--key-file", "k"}).command, "usb apply");
  EXPECT_EQ(apply.directory, "/packages");
  EXPECT_EQ(apply.keyFile, "package.key");
  EXPECT_TRUE(apply.json);
  EXPECT_EQ(options({"usb", "estimate", "--key-file", "package.key"}).directory, "");
}

TEST(CommandLine, PointsToTheHelpOfTheCommandOfAGroup) {
  EXPECT_EQ(usageError({"usb", "apply"}).problem->remedy, "Try: fw-update usb apply --help");
  EXPECT_EQ(usageError({"usb"}).problem->remedy, "Try: fw-update usb --help");
  EXPECT_STREQ(usageError({"usb", "format"}).problem->ending->id, "usage");
}

class CommandHelp : public ::testing::TestWithParam<const char*> {};

TEST_P(CommandHelp, FitsAScreenWithAnExampleAndTheExitCodes) {
  std::string name = GetParam();  // maybe of two words
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
  EXPECT_THAT(help, HasSubstr(std::string("Example: fw-update ") + GetParam()));
  for (const frame::OutcomeInfo& info : tool::kOutcomeTable) {
    EXPECT_THAT(help, HasSubstr(" " + std::to_string(info.exitCode) + " "));
  }
}

std::vector<const char*> commandNames() {
  std::vector<const char*> names;
  for (const auto& command : tool::program().commands) {
    names.push_back(command.info.name);
  }
  return names;
}

INSTANTIATE_TEST_SUITE_P(Every, CommandHelp, ::testing::ValuesIn(commandNames()), [](const auto& test) {
  std::string name = test.param;
  std::replace_if(
      name.begin(), name.end(), [](char c) { return c == ' ' || c == '-'; }, '_');
  return name;
});

// What no command caught.
frame::Report explained(const std::exception& error) {
  return tool::program().info.explain(error);
}

TEST(UncaughtError, IsToldByItsKind) {
  EXPECT_EQ(explained(std::bad_alloc()).message, "The device has no memory left for this command.");
  EXPECT_THAT(explained(std::system_error(EMFILE, std::generic_category(), "pipe")).message,
              HasSubstr("The command could not be carried out: pipe: "));
  EXPECT_EQ(explained(std::runtime_error("odd")).message, "Unexpected error: odd");
}

TEST(UncaughtError, IsAnUnexpectedOneAndHasARemedy) {
  for (const frame::Report& report :
       {explained(std::bad_alloc()), explained(std::system_error(EMFILE, std::generic_category(), "pipe"))}) {
    EXPECT_EQ(report.ending->exitCode, 1);
    EXPECT_EQ(report.remedy, "Try again when the device has more memory free.");
  }
  EXPECT_EQ(explained(std::runtime_error("odd")).remedy, "See the log (--log).");
}

}  // namespace
