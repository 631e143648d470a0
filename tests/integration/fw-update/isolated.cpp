// SPDX-License-Identifier: Apache-2.0
// Updates in a child process of the command, with modules that crash and hang there.
#include <algorithm>

#include <csignal>
#include <filesystem>
#include <ostream>
#include <tuple>

#include "tool-test.h"

namespace {

using ::testing::AllOf;

using ::testing::HasSubstr;
using ::testing::Not;

constexpr const char* kFree = "free";

class IsolatedUpdate : public ToolTest {
 protected:
  void SetUp() override {
    ToolTest::SetUp();
    std::filesystem::copy_file(FAULTY_MODULE, std::string(kControls) + "libfaulty.so");
    installImage("faultyfw", "2.0", 0);
  }

  static Launch with(const std::string& fault) { return {{"FAULTY_MODULE=" + fault}}; }

  static Json::Value update(const std::string& fault, std::vector<std::string> more = {}) {
    std::vector<std::string> words{"update", "libfaulty", "--isolated"};
    words.insert(words.end(), more.begin(), more.end());
    return document(words, with(fault));
  }

  // "absent" before any update came to it.
  static std::string lock() { return document({"lock", "status"})["state"].asString(); }
};

// ---- Crashes ------------------------------------------------------------------

struct Crash {
  const char* place;
  const char* step;  // as JSON tells it
  const char* when;  // in the message
};

void PrintTo(const Crash& crash, std::ostream* stream) {
  *stream << crash.place;
}

constexpr Crash kPlaces[] = {
    {"load", "load", "while it was being loaded"},
    {"setContext", "load", "while it was being loaded"},
    {"getEMPID", "load", "while it was being loaded"},
    {"getActiveVersion", "version", "when it was asked for its version"},
    {"checkVersion", "check", "when it was asked whether it needs the image"},
    {"doUpdate", "write", "while it was updating"},
    {"getActiveVersion-after", "version", "when it was asked for its version"},
};

struct Fault {
  const char* name;
  const char* words;
  const char* signal;  // null: none
};

void PrintTo(const Fault& fault, std::ostream* stream) {
  *stream << fault.name;
}

constexpr Fault kFaults[] = {
    {"segv", "libfaulty crashed (SIGSEGV, Segmentation fault) ", "SIGSEGV"},
    {"abort", "libfaulty crashed (SIGABRT, Aborted) ", "SIGABRT"},
    {"exit", "libfaulty ended the program with exit code 3 ", nullptr},
};

class CrashingModule : public IsolatedUpdate,
                       public ::testing::WithParamInterface<std::tuple<Crash, Fault>> {};

TEST_P(CrashingModule, IsNamedWithWhatItDidAndLeavesTheLockFree) {
  const auto& [place, fault] = GetParam();

  const Json::Value ended = update(place.place + std::string(" ") + fault.name);

  EXPECT_EQ(ended["exitCode"].asInt(), 13);
  EXPECT_EQ(ended["outcome"].asString(), "module-crashed");
  EXPECT_EQ(ended["module"].asString(), "libfaulty");
  EXPECT_EQ(ended["step"].asString(), place.step);
  EXPECT_EQ(ended["signal"].asString(), fault.signal != nullptr ? fault.signal : "");
  EXPECT_THAT(ended["message"].asString(), HasSubstr(fault.words + std::string(place.when)));
  EXPECT_THAT(ended["remedy"].asString(), Not(HasSubstr("lock recover")));  // there is nothing to give back
  EXPECT_NE(lock(), "stuck");
}

INSTANTIATE_TEST_SUITE_P(At, CrashingModule,
                         ::testing::Combine(::testing::ValuesIn(kPlaces), ::testing::ValuesIn(kFaults)),
                         [](const auto& test) {
                           std::string name = std::string(std::get<0>(test.param).place) + "_" +
                                              std::get<1>(test.param).name;
                           std::replace(name.begin(), name.end(), '-', '_');
                           return name;
                         });

TEST_F(IsolatedUpdate, GivesTheLockBackThatACrashedModuleHeld) {
  const Json::Value ended = update("doUpdate segv");

  EXPECT_EQ(ended["lock"].asString(), "given-back");
  EXPECT_THAT(ended["message"].asString(), HasSubstr("update lock, which was given back"));
  EXPECT_EQ(lock(), kFree);
  EXPECT_EQ(run({"update", "libfaulty"}).exitCode, 0);
}

TEST_F(IsolatedUpdate, SaysWhenTheModuleCrashedWhileItWasAskedForItsProgress) {
  const Json::Value ended = update("getUpdateProgress segv");

  EXPECT_EQ(ended["exitCode"].asInt(), 13);
  EXPECT_EQ(ended["module"].asString(), "libfaulty");
  EXPECT_TRUE(ended["askedForProgress"].asBool());
  EXPECT_THAT(ended["message"].asString(), HasSubstr(", or when it was asked for its progress"));
  EXPECT_NE(lock(), "stuck");
}

TEST_F(IsolatedUpdate, SaysThatTheUpdateHadSucceededBeforeTheCrash) {
  EXPECT_THAT(update("getActiveVersion-after abort")["message"].asString(),
              HasSubstr("Its update had succeeded before."));
  EXPECT_THAT(update("doUpdate abort")["message"].asString(), Not(HasSubstr("succeeded")));
}

TEST_F(IsolatedUpdate, NamesTheModuleThatCrashesNotTheOneAskedFor) {
  installModule("libtuner");
  installImage("tunerfw");

  const Json::Value ended = document({"update", "libtuner", "--isolated"}, with("load segv"));

  EXPECT_EQ(ended["module"].asString(), "libfaulty");
  EXPECT_THAT(ended["remedy"].asString(), HasSubstr("Nothing was written."));
}

TEST_F(IsolatedUpdate, KeepsItsResultWhenTheModuleCrashesAtTheEnd) {
  const Ended ended = run({"update", "libfaulty", "--isolated", "--json"}, with("unload segv"));

  EXPECT_EQ(ended.exitCode, 0);
  EXPECT_THAT(ended.out, HasSubstr("\"outcome\" : \"updated\""));
  EXPECT_THAT(ended.err, AllOf(HasSubstr("warning"), HasSubstr("SIGSEGV")));
}

// ---- Hangs --------------------------------------------------------------------

class HangingModule : public IsolatedUpdate, public ::testing::WithParamInterface<Crash> {};

TEST_P(HangingModule, IsEndedAndNamed) {
  const Json::Value ended = update(GetParam().place + std::string(" hang"), {"--patience", "1"});

  EXPECT_EQ(ended["exitCode"].asInt(), 14);
  EXPECT_EQ(ended["outcome"].asString(), "module-hung");
  EXPECT_EQ(ended["module"].asString(), "libfaulty");
  EXPECT_EQ(ended["step"].asString(), GetParam().step);
  EXPECT_THAT(ended["message"].asString(), HasSubstr("libfaulty hung " + std::string(GetParam().when)));
  EXPECT_NE(lock(), "stuck");
}

INSTANTIATE_TEST_SUITE_P(At, HangingModule,
                         ::testing::Values(kPlaces[0], kPlaces[1], kPlaces[2], kPlaces[3], kPlaces[4],
                                           kPlaces[6]),
                         [](const auto& test) {
                           std::string name = test.param.place;
                           std::replace(name.begin(), name.end(), '-', '_');
                           return name;
                         });

TEST_F(IsolatedUpdate, LeavesAHangInTheUpdateToTheLibrarysOwnLimit) {
  const Json::Value ended = update("doUpdate hang");

  EXPECT_EQ(ended["outcome"].asString(), "timed-out");
  EXPECT_EQ(ended["exitCode"].asInt(), 7);
  EXPECT_EQ(lock(), kFree);
}

TEST_F(IsolatedUpdate, EndsAProcessThatTheLibrarysLimitDoesNotEnd) {
  const Json::Value ended = update("doUpdate stop", {"--patience", "1"});

  EXPECT_EQ(ended["outcome"].asString(), "module-hung");
  EXPECT_EQ(ended["step"].asString(), "write");
  EXPECT_EQ(ended["lock"].asString(), "given-back");
  EXPECT_EQ(lock(), kFree);
}

TEST_F(IsolatedUpdate, IsNotHeldUpByAModuleThatDoesNotTellItsProgress) {
  EXPECT_EQ(update("getUpdateProgress hang")["outcome"].asString(), "updated");
}

// ---- As without ---------------------------------------------------------------

TEST_F(IsolatedUpdate, UpdatesAndTellsTheSameAsInOneProcess) {
  const Json::Value ended = update("");

  EXPECT_EQ(ended["outcome"].asString(), "updated");
  EXPECT_EQ(ended["versionBefore"].asString(), "1.0");
  EXPECT_EQ(ended["versionAfter"].asString(), "2.0");
  EXPECT_EQ(lock(), kFree);
}

TEST_F(IsolatedUpdate, PassesEveryOtherResultOn) {
  EXPECT_EQ(document({"update", "libnone", "--isolated"})["exitCode"].asInt(), 4);
  std::filesystem::remove_all("/lib/firmware/ext/faultyfw");
  EXPECT_EQ(update("")["exitCode"].asInt(), 5);
}

TEST_F(IsolatedUpdate, EndsWithOneResultLineAfterTheProgress) {
  const Ended ended =
      run({"update", "libfaulty", "--isolated", "--progress", "ndjson"}, with("doUpdate segv"));

  const auto events = lines(ended.out);
  ASSERT_GE(events.size(), 2u);
  EXPECT_EQ(events.front()["event"].asString(), "start");
  EXPECT_EQ(events.back()["event"].asString(), "result");
  EXPECT_EQ(events.back()["outcome"].asString(), "module-crashed");
}

TEST_F(IsolatedUpdate, HasTheLibrarysLogOfTheProcessThatCrashed) {
  const Ended ended = run({"update", "libfaulty", "--isolated", "--json", "--log"}, with("doUpdate segv"));

  EXPECT_EQ(ended.exitCode, 13);
  EXPECT_THAT(ended.out, HasSubstr("faultyfw Firmware Update Try"));
}

TEST_F(IsolatedUpdate, TakesPatienceOnlyWithIsolation) {
  EXPECT_EQ(document({"update", "libfaulty", "--patience", "1"})["exitCode"].asInt(), 2);
  EXPECT_EQ(document({"update", "libfaulty", "--isolated", "--patience", "0"})["exitCode"].asInt(), 2);
}

// ---- Signals ------------------------------------------------------------------

class InterruptedIsolatedUpdate : public IsolatedUpdate, public ::testing::WithParamInterface<int> {
 protected:
  void SetUp() override {
    ToolTest::SetUp();
    installModule("libtuner");
    installImage("tunerfw");
    describeComponent("tunerfw", "stall_at_percent = 40");
  }
};

TEST_P(InterruptedIsolatedUpdate, EndsBothProcessesAndFreesTheLock) {
  RunningTool tool({"update", "libtuner", "--isolated", "--progress", "ndjson"}, {});
  tool.waitFor("\"percent\":4");

  tool.kill(GetParam());

  EXPECT_EQ(tool.finish(), -GetParam());
  const Json::Value found = document({"lock", "status"});
  EXPECT_EQ(found["state"].asString(), "free");
  EXPECT_TRUE(found["processes"].empty()) << "the child has ended too";
}

INSTANTIATE_TEST_SUITE_P(BySignal, InterruptedIsolatedUpdate, ::testing::Values(SIGINT, SIGTERM, SIGHUP));

TEST_F(InterruptedIsolatedUpdate, DrawsItsLineOnATerminalAndEndsWithCtrlC) {
  RunningTool tool({"update", "libtuner", "--isolated"}, {{"TERM=xterm"}, true, 80});
  tool.waitFor("40 %");

  tool.type("\x03");

  EXPECT_EQ(tool.finish(), -SIGINT);
  EXPECT_EQ(lock(), kFree);
}

TEST_F(InterruptedIsolatedUpdate, KillsAChildThatDoesNotEndWithTheThirdSignal) {
  RunningTool tool({"update", "libtuner", "--isolated", "--patience", "1", "--progress", "ndjson"}, {});
  tool.waitFor("\"percent\":4");
  const Json::Value users = document({"lock", "status"})["processes"];
  ASSERT_EQ(users.size(), 1U);
  const pid_t child = users[0]["pid"].asInt();
  ASSERT_EQ(kill(child, SIGSTOP), 0);

  for (const int signal : {SIGHUP, SIGINT, SIGTERM}) {
    tool.kill(signal);
  }

  EXPECT_EQ(tool.finish(), -SIGTERM);
  EXPECT_FALSE(exists("/proc/" + std::to_string(child)));
}

TEST_F(InterruptedIsolatedUpdate, WaitsForTheLockAsLongAsItTakes) {
  RunningTool holder({"update", "libtuner", "--progress", "ndjson"}, {});
  holder.waitFor("\"percent\":4");
  RunningTool tool({"update", "libtuner", "--isolated", "--patience", "1", "--progress", "ndjson"}, {});
  tool.waitFor("\"event\":\"waiting\"");

  holder.kill(SIGKILL);
  holder.finish();
  EXPECT_EQ(run({"lock", "recover"}).exitCode, 0);
  tool.waitFor("\"percent\":4");
  tool.kill(SIGINT);

  EXPECT_EQ(tool.finish(), -SIGINT);
}

// ---- Queries ------------------------------------------------------------------

struct Asked {
  std::vector<std::string> words;
};

void PrintTo(const Asked& query, std::ostream* stream) {
  *stream << query.words[0];
}

class HungQuery : public IsolatedUpdate, public ::testing::WithParamInterface<Asked> {};

TEST_P(HungQuery, IsGivenUpAndNamesTheModule) {
  for (const auto& [place, step] : {std::pair("load", "load"), std::pair("getActiveVersion", "version")}) {
    std::vector<std::string> words = GetParam().words;
    words.insert(words.end(), {"--isolated", "--patience", "1"});

    const Json::Value ended = document(words, with(std::string(place) + " hang"));

    EXPECT_EQ(ended["outcome"].asString(), "module-hung") << place;
    EXPECT_EQ(ended["exitCode"].asInt(), 14) << place;
    EXPECT_EQ(ended["module"].asString(), "libfaulty") << place;
    EXPECT_EQ(ended["step"].asString(), step) << place;
    EXPECT_THAT(ended["message"].asString(), HasSubstr("libfaulty hung ")) << place;
  }
}

TEST_P(HungQuery, AnswersAsEverWhenNoModuleHangs) {
  std::vector<std::string> words = GetParam().words;
  const Json::Value expected = document(words);
  words.emplace_back("--isolated");

  EXPECT_EQ(document(words), expected);
}

// Whoever waits for the process on its behalf says what is to be said.
TEST_F(IsolatedUpdate, SaysNothingByItselfInItsOwnProcess) {
  const Ended ended =
      run({"info", "libfaulty", "--isolated", "--patience", "6"}, with("getActiveVersion hang"));

  EXPECT_EQ(ended.exitCode, 14);
  EXPECT_THAT(ended.err, Not(HasSubstr("has not answered for 5 s")));
}

TEST_P(HungQuery, SaysByItselfThatAModuleDoesNotAnswerAndWhatToDo) {
  RunningTool query(GetParam().words, with("getActiveVersion hang"));

  query.waitForError("--isolated");

  EXPECT_THAT(query.err(), HasSubstr("has not answered for 5 s"));
  EXPECT_THAT(query.err(), HasSubstr("fw-update list --isolated --patience 10"));
  query.kill(SIGINT);
  EXPECT_EQ(query.finish(), -SIGINT);
}

INSTANTIATE_TEST_SUITE_P(ByCommand, HungQuery,
                         ::testing::Values(Asked{{"list"}}, Asked{{"info", "libfaulty"}},
                                           Asked{{"verify", "libfaulty", "--version", "1.0"}}));

}  // namespace
