// SPDX-License-Identifier: Apache-2.0
// The frame of the commands, around a program that is made up here.
#include "frame/program.h"

#include <gmock/gmock.h>
#include <json/reader.h>

#include <iostream>
#include <sstream>

#include "frame/description.h"
#include "interrupted.h"

namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::internal::CaptureStderr;
using ::testing::internal::CaptureStdout;
using ::testing::internal::GetCapturedStderr;
using ::testing::internal::GetCapturedStdout;

enum class Outcome { Done, Failed, Usage, Nothing };

constexpr frame::OutcomeInfo kOutcomes[] = {
    {"ok", 0, "done", frame::Tone::Answer},
    {"failed", 1, "failed", frame::Tone::Failure},
    {"usage", 2, "usage", frame::Tone::Failure},
    {"nothing-to-do", 3, "nothing to do", frame::Tone::Notice},
};

constexpr const frame::OutcomeInfo& infoOf(Outcome outcome) {
  return kOutcomes[static_cast<std::size_t>(outcome)];
}

struct Options {
  bool json = false;
  bool verbose = false;
  bool quiet = false;
  unsigned int count = 3;
  std::string name;
  std::optional<std::string> data;
  std::vector<std::string> files;
  std::vector<std::string> keep;
  std::vector<std::string> program;
};

using Option = frame::Option<Options>;

std::vector<std::string> colours() {
  return {"red", "green", "blue"};
}

std::string nameProblem(const std::string& name) {
  return name == "bad" ? "this name is bad" : "";
}

constexpr Option kCommon[] = {{"--verbose", &Options::verbose, "Say more"}};
constexpr Option kName[] = {Option("NAME", &Options::name, "").required().checked(nameProblem).of(colours)};
constexpr Option kPaint[] = {
    Option("-c,--count NUMBER", &Options::count, "How many").within(1, 9).withDefault(),
    {"--data TEXT", &Options::data, "What to send"},
    Option("--quiet", &Options::quiet, "Say less").excluding("--data"),
};
constexpr Option kFiles[] = {{"FILE", &Options::files, "What to read"}};
constexpr Option kKeep[] = {{"--keep PATH", &Options::keep, "What to show"}};

frame::Report paint(const Options& options) {
  frame::Report report(Outcome::Done);
  report.body = "painted " + options.name + "\n";
  report.details["colour"] = options.name;
  return report;
}

frame::Report read(const Options& options) {
  if (options.files.empty()) {
    return frame::Report(Outcome::Nothing, "There is nothing to read.");
  }
  throw frame::Failure(Outcome::Failed, options.files[0] + " cannot be read.", "Name another.");
}

frame::Report run(const Options& /*options*/) {
  throw std::runtime_error("it broke");
}

frame::Report wait(const Options& /*options*/) {
  throw tool::Interrupted(15);
}

void settlePaint(Options& options) {
  if (options.data && options.name == "blue") {
    throw frame::UsageError("blue takes no data");
  }
}

std::string remark() {
  return "Colours are what they are.\n";
}

constexpr frame::Group kGroups[] = {{"file", "Files: read, wait"}};

constexpr frame::Command<Options> kCommands[] = {
    {{"paint", "Paint it", "brush paint red", remark}, {kName, kPaint}, paint, settlePaint},
    {{"file read", "Read files", "brush file read a"}, {kFiles}, read},
    {{"file wait", "Wait for files", "brush file wait"}, {}, wait},
    {{"run", "Run a program", "brush run -- ls"}, {kName, kKeep}, run, nullptr, &Options::program},
};

constexpr frame::Program<Options> kProgram = {
    {"brush", "Paints.", "Each command explains itself: brush paint --help", kOutcomes, Outcome::Usage,
     Outcome::Failed, 24, "run gives the program's own", kGroups},
    kCommon,
    kCommands,
};

constexpr frame::Command<Options> kCommandsAndOwn[] = {
    {{"paint", "Paint it", "brush paint red"}, {kName}, paint},
    {{"", "", "brush --quiet"}, {kPaint, kFiles}, read},
};

// One that does something without a command, too.
constexpr frame::Program<Options> kOwnProgram = {
    {"brush", "Paints.", "", kOutcomes, Outcome::Usage, Outcome::Failed, 24},
    kCommon,
    kCommandsAndOwn,
};

struct Line {
  Options options;
  frame::Parsed parsed;
};

Line parse(std::vector<const char*> words) {
  words.insert(words.begin(), "brush");
  Line line;
  const frame::BoundProgram bound = frame::bind(kProgram, line.options);
  line.parsed = frame::parse(bound, static_cast<int>(words.size()), words.data());
  line.parsed.command = nullptr;  // it goes with bound
  return line;
}

std::string problem(const std::vector<const char*>& words) {
  const frame::Parsed parsed = parse(words).parsed;
  return parsed.problem ? parsed.problem->message + "|" + parsed.problem->remedy : "none";
}

struct Ended {
  int code;
  std::string out;
  std::string err;
};

// What main does, but for the gate before the streams.
Ended perform(std::vector<const char*> words) {
  words.insert(words.begin(), "brush");
  Options options;
  const frame::BoundProgram bound = frame::bind(kProgram, options);
  const frame::Parsed parsed = frame::parse(bound, static_cast<int>(words.size()), words.data());
  CaptureStdout();
  CaptureStderr();
  const frame::Report report = parsed.problem ? *parsed.problem : frame::run(kProgram.info, *parsed.command);
  const int code = frame::put(report, "brush", parsed.name,
                              options.json ? frame::Form::Json : frame::Form::Text, Outcome::Failed);
  return {code, GetCapturedStdout(), GetCapturedStderr()};
}

Json::Value document(const std::string& text) {
  Json::Value parsed;
  std::istringstream(text) >> parsed;
  return parsed;
}

TEST(Frame, FillsTheOptionsOfACommand) {
  const Options options = parse({"paint", "red", "-c", "7", "--data", "", "--verbose"}).options;

  EXPECT_EQ(options.name, "red");
  EXPECT_EQ(options.count, 7U);
  EXPECT_EQ(options.data, "");
  EXPECT_TRUE(options.verbose);
  EXPECT_FALSE(options.quiet);
}

TEST(Frame, LeavesWhatIsNotNamedAsItWas) {
  const Options options = parse({"paint", "red"}).options;

  EXPECT_EQ(options.count, 3U);
  EXPECT_EQ(options.data, std::nullopt);
  EXPECT_FALSE(options.verbose);
}

TEST(Frame, TakesCommonOptionsBeforeAndAfterTheCommand) {
  EXPECT_TRUE(parse({"--json", "paint", "red"}).options.json);
  EXPECT_TRUE(parse({"paint", "red", "--json"}).options.json);
  EXPECT_TRUE(parse({"file", "read", "--verbose"}).options.verbose);
}

TEST(Frame, TakesManyArgumentsAndRepeatedOptions) {
  EXPECT_THAT(parse({"file", "read", "a", "b"}).options.files, ElementsAre("a", "b"));
  EXPECT_THAT(parse({"run", "--keep", "a", "--keep", "b", "red", "--", "x"}).options.keep,
              ElementsAre("a", "b"));
}

TEST(Frame, TakesALineWithoutACommandAsTheProgramsOwn) {
  const auto named = [](std::vector<const char*> words) {
    words.insert(words.begin(), "brush");
    Options options;
    const frame::BoundProgram bound = frame::bind(kOwnProgram, options);
    const frame::Parsed parsed = frame::parse(bound, static_cast<int>(words.size()), words.data());
    const std::string file = options.files.empty() ? "" : " of " + options.files[0];
    return parsed.problem ? parsed.problem->message : "[" + parsed.name + "]" + file;
  };

  EXPECT_EQ(named({}), "[]");
  EXPECT_EQ(named({"--verbose", "--quiet", "a"}), "[] of a");
  EXPECT_EQ(named({"paint", "red"}), "[paint]");
  EXPECT_EQ(named({"--nothing"}), "The following argument was not expected: --nothing");
}

TEST(Frame, DescribesTheProgramsOwnOptionsBesideItsCommands) {
  Options options;

  const Json::Value described = frame::descriptionOf(frame::bind(kOwnProgram, options));

  EXPECT_EQ(described["usage"], "brush [OPTIONS] [FILE...] [SUBCOMMAND]");
  EXPECT_EQ(described["arguments"].size(), 1U);
  EXPECT_EQ(described["commands"].size(), 1U);
  EXPECT_EQ(described["commands"][0]["usage"], "brush paint [OPTIONS] NAME");
}

TEST(Frame, LeavesTheWordsOfAnotherProgramToIt) {
  EXPECT_THAT(parse({"run", "red", "--", "ls", "--json", "--", "x"}).options.program,
              ElementsAre("ls", "--json", "--", "x"));
  EXPECT_THAT(parse({"run", "red", "ls", "--", "x"}).options.program, ElementsAre("ls", "--", "x"));
  EXPECT_FALSE(parse({"run", "red", "--", "ls", "--json"}).options.json);
  EXPECT_EQ(problem({"run", "red"}), "which command? Put it after --|Try: brush run --help");
  EXPECT_EQ(problem({"run", "red", "--frob", "--", "ls"}), "there is no option --frob|Try: brush run --help");
  EXPECT_EQ(problem({"paint", "red", "--", "ls"}), "only run takes a command|Try: brush paint --help");
}

TEST(Frame, NamesWhatIsWrongAndWhereHelpIs) {
  EXPECT_EQ(problem({"frob"}), "there is no command frob|Try: brush --help");
  EXPECT_EQ(problem({"paint"}), "NAME is required|Try: brush paint --help");
  EXPECT_EQ(problem({"paint", "blue", "--data", "x"}), "blue takes no data|Try: brush paint --help");
  EXPECT_THAT(problem({"paint", "bad"}), HasSubstr("this name is bad"));
  EXPECT_THAT(problem({"paint", "red", "--count", "10"}), HasSubstr("--count"));
  EXPECT_THAT(problem({"paint", "red", "--count", "many"}), HasSubstr("--count"));
  EXPECT_THAT(problem({"paint", "red", "--quiet", "--data", "x"}), HasSubstr("excludes"));
  EXPECT_THAT(problem({"file"}), HasSubstr("Try: brush file --help"));
  EXPECT_THAT(problem({}), HasSubstr("required"));
}

TEST(Frame, KnowsWhetherAWrongCommandLineAskedForJson) {
  EXPECT_TRUE(parse({"paint", "--json"}).parsed.json);
  EXPECT_FALSE(parse({"paint"}).parsed.json);
}

TEST(Frame, PutsAnAnswerOutAsText) {
  const Ended ended = perform({"paint", "red"});

  EXPECT_EQ(ended.code, 0);
  EXPECT_EQ(ended.out, "painted red\n");
  EXPECT_EQ(ended.err, "");
}

TEST(Frame, PutsAnAnswerOutAsOneDocument) {
  const Json::Value json = document(perform({"paint", "red", "--json"}).out);

  EXPECT_EQ(json["command"], "paint");
  EXPECT_EQ(json["ok"], true);
  EXPECT_EQ(json["outcome"], "ok");
  EXPECT_EQ(json["exitCode"], 0);
  EXPECT_EQ(json["colour"], "red");
  EXPECT_FALSE(json.isMember("message"));
}

TEST(Frame, TellsAFailureOnStandardErrorWithItsRemedy) {
  const Ended ended = perform({"file", "read", "a"});

  EXPECT_EQ(ended.code, 1);
  EXPECT_EQ(ended.out, "");
  EXPECT_EQ(ended.err, "brush: a cannot be read.\nName another.\n");
}

TEST(Frame, TellsAFailureInADocumentToo) {
  const Ended ended = perform({"file", "read", "a", "--json"});
  const Json::Value json = document(ended.out);

  EXPECT_EQ(ended.code, 1);
  EXPECT_EQ(ended.err, "");
  EXPECT_EQ(json["command"], "file read");
  EXPECT_EQ(json["ok"], false);
  EXPECT_EQ(json["outcome"], "failed");
  EXPECT_EQ(json["exitCode"], 1);
  EXPECT_EQ(json["message"], "a cannot be read.");
  EXPECT_EQ(json["remedy"], "Name another.");
}

TEST(Frame, TellsANoticeOnStandardOutputWithItsExitCode) {
  const Ended ended = perform({"file", "read"});

  EXPECT_EQ(ended.code, 3);
  EXPECT_EQ(ended.out, "There is nothing to read.\n");
  EXPECT_EQ(ended.err, "");
}

TEST(Frame, KeepsTheBlanksOfASentenceWhereNothingLimitsTheLine) {
  EXPECT_EQ(perform({"file", "read", "a  b\n"}).err, "brush: a  b\\x0A cannot be read.\nName another.\n");
}

TEST(Frame, ReportsWhatACommandDidNotCatch) {
  const Ended ended = perform({"run", "red", "ls"});

  EXPECT_EQ(ended.code, 1);
  EXPECT_EQ(ended.err, "brush: it broke\n");
}

// As main does it.
Ended performWhole(std::vector<const char*> words) {
  words.insert(words.begin(), "brush");
  std::vector<std::string> copies(words.begin(), words.end());
  std::vector<char*> arguments;
  for (std::string& copy : copies) {
    arguments.push_back(copy.data());
  }
  CaptureStdout();
  CaptureStderr();
  const int code = frame::perform(kProgram, static_cast<int>(arguments.size()), arguments.data());
  std::cout << std::flush;  // as the end of the process does
  return {code, GetCapturedStdout(), GetCapturedStderr()};
}

TEST(Frame, RunsTheCommandOfACommandLineAndPutsItsReportOut) {
  const Ended ended = performWhole({"paint", "red"});

  EXPECT_EQ(ended.code, 0);
  EXPECT_EQ(ended.out, "painted red\n");
  EXPECT_EQ(performWhole({"paint", "red", "--json"}).out.substr(0, 1), "{");
  EXPECT_EQ(performWhole({"file", "read"}).code, 3);
}

TEST(Frame, PutsOutNothingThatSteersTheTerminal) {
  EXPECT_EQ(performWhole({"paint", "red\x1b[2J"}).out, "painted red\\x1B[2J\n");
}

TEST(Frame, RunsNoCommandOfACommandLineThatAsksForHelpOrIsWrong) {
  const Ended help = performWhole({"paint", "--help"});
  const Ended wrong = performWhole({"paint", "bad"});

  EXPECT_EQ(help.code, 0);
  EXPECT_THAT(help.out, HasSubstr("Usage: brush paint"));
  EXPECT_EQ(wrong.code, 2);
  EXPECT_THAT(wrong.err, HasSubstr("this name is bad"));
}

TEST(Frame, LetsAnInterruptionThrough) {
  Options options;
  const frame::BoundProgram bound = frame::bind(kProgram, options);

  EXPECT_THROW(frame::run(kProgram.info, bound.commands[2]), tool::Interrupted);
}

TEST(Frame, AnEventIsOneLine) {
  CaptureStdout();
  Json::Value event;
  event["event"] = "start";

  frame::putEvent(event);

  EXPECT_EQ(GetCapturedStdout(), "{\"event\":\"start\"}\n");
}

TEST(Frame, HelpNamesEveryOptionAndTheExitCodes) {
  CaptureStdout();
  parse({"paint", "--help"});
  const std::string help = GetCapturedStdout();

  for (const char* part :
       {"Usage: brush paint [OPTIONS] NAME\n", "red, green or blue", "-c,--count NUMBER", "--data TEXT",
        "--quiet", "--json", "--verbose", "Colours are what they are.\nExample: brush paint red\n",
        "\nExit codes: 0 done, 1 failed, 2 usage, 3 nothing to do;\n  run gives the program's own\n"}) {
    EXPECT_THAT(help, HasSubstr(part));
  }
}

TEST(Frame, BreaksALongLineOfExitCodes) {
  constexpr frame::OutcomeInfo kMany[] = {
      {"a", 0, "one that takes some room", frame::Tone::Answer},
      {"b", 1, "another that takes some room", frame::Tone::Failure},
      {"c", 2, "one more that takes some room", frame::Tone::Failure},
      {"d", 2, nullptr, frame::Tone::Failure},
  };
  const frame::ProgramInfo info{"x", "", "", kMany, Outcome::Usage, Outcome::Failed};

  EXPECT_EQ(frame::exitCodeLines(info),
            "Exit codes: 0 one that takes some room, 1 another that takes some room,\n"
            "  2 one more that takes some room");
}

class Description : public ::testing::Test {
 protected:
  Description() : json_(frame::descriptionOf(frame::bind(kProgram, options_))) {}

  const Json::Value& command(const Json::Value& parent, const char* name) {
    for (const Json::Value& command : parent["commands"]) {
      if (command["name"] == name) {
        return command;
      }
    }
    ADD_FAILURE() << "no command " << name;
    return parent;
  }
  static const Json::Value& option(const Json::Value& command, const char* name) {
    for (const Json::Value& option : command["options"]) {
      for (const Json::Value& each : option["names"]) {
        if (each == name) {
          return option;
        }
      }
    }
    ADD_FAILURE() << "no option " << name;
    return command;
  }

  Options options_;
  const Json::Value json_;
};

TEST_F(Description, HasEveryCommandWithItsUsage) {
  EXPECT_EQ(json_["usage"], "brush [OPTIONS] SUBCOMMAND");
  EXPECT_EQ(command(json_, "paint")["usage"], "brush paint [OPTIONS] NAME");
  EXPECT_EQ(command(command(json_, "file"), "read")["usage"], "brush file read [OPTIONS] [FILE...]");
  EXPECT_EQ(command(json_, "run")["usage"], "brush run [OPTIONS] NAME -- COMMAND [ARGUMENT...]");
  EXPECT_EQ(command(command(json_, "file"), "wait")["example"], "brush file wait");
  EXPECT_EQ(json_["commands"].size(), 3U);
}

TEST_F(Description, HasEveryOptionWithItsNamesAndWords) {
  const Json::Value& paint = command(json_, "paint");

  EXPECT_EQ(option(paint, "-c")["names"][1], "--count");
  EXPECT_EQ(option(paint, "--count")["value"], "NUMBER");
  EXPECT_EQ(option(paint, "--quiet")["value"], "");
  EXPECT_EQ(option(paint, "--json")["summary"], "Print one JSON document on standard output");
  EXPECT_EQ(paint["arguments"][0]["words"].size(), 3U);
  EXPECT_EQ(paint["arguments"][0]["required"], true);
  EXPECT_EQ(paint["arguments"][0]["summary"], "red, green or blue");
}

TEST_F(Description, TellsWhatCompletesAValue) {
  EXPECT_EQ(option(command(json_, "run"), "--keep")["completes"], "files");
  EXPECT_EQ(command(command(json_, "file"), "read")["arguments"][0]["completes"], "files");
  EXPECT_EQ(command(command(json_, "file"), "read")["arguments"][0]["many"], true);
  EXPECT_EQ(option(command(json_, "paint"), "--data")["completes"], "");
}

TEST_F(Description, ListsTheOutcomes) {
  ASSERT_EQ(json_["outcomes"].size(), 4U);
  EXPECT_EQ(json_["outcomes"][3]["outcome"], "nothing-to-do");
  EXPECT_EQ(json_["outcomes"][3]["exitCode"], 3);
  EXPECT_EQ(json_["outcomes"][3]["meaning"], "nothing to do");
  EXPECT_EQ(json_["exitCodeRemark"], "run gives the program's own");
}

TEST_F(Description, HasNoRemarkWhereTheProgramMakesNone) {
  frame::Program<Options> silent = kProgram;
  silent.info.exitCodeRemark = nullptr;

  EXPECT_EQ(frame::descriptionOf(frame::bind(silent, options_))["exitCodeRemark"], "");
}

}  // namespace
