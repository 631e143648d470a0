// SPDX-License-Identifier: Apache-2.0
#include "update-all/run-progress.h"

#include <gmock/gmock.h>

#include <map>

#include "library-messages.h"
#include "messages.h"

namespace {

using std::chrono::seconds;
using ::testing::HasSubstr;
using tool::Outcome;

using tool::RunProgress;

const auto kStart = std::chrono::steady_clock::now();

tool::PlannedModule planned(const std::string& name, unsigned int expected = 10) {
  return {"lib" + name, name + "fw", "1.0.0", true, expected, {}};
}

// What the library logs of a run, second by second.
class RunLog {
 public:
  RunLog() { add(0, "doUpdateFirmwareAll", MESSAGE_RUN_BEGINS, {}); }

  RunLog& wanted(int second, const std::string& name) {
    return add(second, "update_timeout_wrapper", MESSAGE_LOCK_WANTED, {name + "fw", "10"});
  }
  RunLog& begun(int second, const std::string& name) {
    return add(second, "updateFirmware", MESSAGE_LOCK_TAKEN, {name + "fw"}, workerOf(name));
  }
  RunLog& taken(int second, const std::string& name) {
    return begun(second, name)
        .add(second, "updateFirmware", MESSAGE_WRITE_BEGINS, {name + "fw"}, workerOf(name));
  }
  RunLog& succeeded(int second, const std::string& name) {
    return add(second, "updateFirmware", MESSAGE_WRITE_SUCCEEDED, {name + "fw"}, workerOf(name));
  }
  RunLog& failed(int second, const std::string& name) {
    return add(second, "updateFirmware", MESSAGE_WRITE_FAILED, {name + "fw", "7", "0", ""}, workerOf(name));
  }
  RunLog& timedOut(int second, const std::string& name) {
    return add(second, "update_timeout_wrapper", MESSAGE_TIMED_OUT, {name + "fw update timeout"});
  }
  RunLog& add(int second, const char* function, const char* format, std::vector<std::string> arguments,
              long thread = kClient) {
    tool::LogMessage logged = message(format, std::move(arguments));
    logged.function = function;
    logged.time = kStart + seconds(second);
    logged.thread = thread;
    messages.push_back(logged);
    return *this;
  }
  // Before the run, which asks every module.
  RunLog& asked(const std::string& name, const std::string& firmware) {
    tool::LogMessage logged = message(MESSAGE_CHECK_BEGINS, {"lib" + name, firmware});
    messages.insert(messages.end() - 1, logged);
    return *this;
  }
  RunLog& notNeeded() {
    messages.insert(messages.end() - 1, message(MESSAGE_NOT_NEEDED, {"/place", "1.0.0"}));
    return *this;
  }

  static constexpr long kClient = 1;
  // A worker each; what it says late is its own.
  long workerOf(const std::string& name) {
    return workers_.try_emplace(name, kClient + 1 + static_cast<long>(workers_.size())).first->second;
  }

  tool::LogMessages messages;

 private:
  std::map<std::string, long> workers_;
};

RunProgress progressAt(int second, const tool::Run& run, std::optional<unsigned int> percent = std::nullopt) {
  return tool::runProgressOf(run, percent, kStart + seconds(second));
}

TEST(RunProgress, IsAtNoModuleBeforeTheFirst) {
  const auto run = tool::runOf({planned("tuner"), planned("panel", 30)}, RunLog().messages);

  const RunProgress progress = progressAt(1, run);

  EXPECT_EQ(progress.number, 0u);
  EXPECT_EQ(progress.count, 2u);
  EXPECT_EQ(progress.modulesLeft, 2u);
  EXPECT_EQ(progress.totalPercent, 0u);
  EXPECT_DOUBLE_EQ(progress.secondsLeft, 40);
}

TEST(RunProgress, CountsTheTimeOfAModuleThatTellsNoPercentage) {
  RunLog log;
  const auto run = tool::runOf({planned("tuner"), planned("panel", 30)},
                               log.wanted(1, "tuner").taken(1, "tuner").messages);

  const RunProgress progress = progressAt(5, run);

  EXPECT_EQ(progress.number, 1u);
  EXPECT_EQ(progress.modulesLeft, 2u);
  EXPECT_EQ(progress.totalPercent, 10u);
  EXPECT_DOUBLE_EQ(progress.secondsLeft, 36);
}

TEST(RunProgress, CountsNoMoreThanTheExpectedTimeOfAModuleThatIsOverdue) {
  RunLog log;
  const auto run = tool::runOf({planned("tuner"), planned("panel", 30)},
                               log.wanted(1, "tuner").taken(1, "tuner").messages);

  const RunProgress progress = progressAt(26, run);

  EXPECT_EQ(progress.totalPercent, 25u);
  EXPECT_DOUBLE_EQ(progress.secondsLeft, 30);
}

TEST(RunProgress, BelievesThePercentageOfTheModuleUpToAHundred) {
  RunLog log;
  const auto run = tool::runOf({planned("tuner"), planned("panel", 30)},
                               log.wanted(1, "tuner").taken(1, "tuner").messages);

  EXPECT_EQ(progressAt(2, run, 80).totalPercent, 20u);
  EXPECT_EQ(progressAt(2, run, 800).totalPercent, 25u);
}

TEST(RunProgress, CountsNothingWhileAModuleWaitsForTheLock) {
  RunLog log;
  const auto run = tool::runOf({planned("tuner"), planned("panel", 30)}, log.wanted(1, "tuner").messages);

  EXPECT_EQ(progressAt(5, run, 80).totalPercent, 0u);
}

TEST(RunProgress, CountsModulesWhenNoneExpectsToTakeTime) {
  RunLog log;
  log.wanted(1, "tuner").taken(1, "tuner").succeeded(2, "tuner").wanted(3, "panel").taken(3, "panel");
  const auto run = tool::runOf({planned("tuner", 0), planned("panel", 0)}, log.messages);

  const RunProgress progress = progressAt(4, run);

  EXPECT_EQ(progress.number, 2u);
  EXPECT_EQ(progress.modulesLeft, 1u);
  EXPECT_EQ(progress.totalPercent, 50u);
}

TEST(Run, TellsHowLongAnEndedTurnTook) {
  RunLog log;
  log.wanted(1, "tuner").taken(3, "tuner").succeeded(5, "tuner").wanted(6, "panel");
  const auto run = tool::runOf({planned("tuner"), planned("panel")}, log.messages);

  ASSERT_EQ(run.size(), 2u);
  EXPECT_DOUBLE_EQ(run[0].turn->duration().value_or(-1), 5);  // until the library goes on
  EXPECT_EQ(run[1].turn->duration(), std::nullopt);
  EXPECT_TRUE(tool::hasEnded(run, 0));
  EXPECT_FALSE(tool::hasEnded(run, 1));
}

TEST(Run, HasNoModuleThatIsNotDue) {
  tool::PlannedModule idle = planned("idle");
  idle.due = false;

  const auto run = tool::runOf({idle, planned("tuner")}, RunLog().messages);

  ASSERT_EQ(run.size(), 1u);
  EXPECT_EQ(run[0].planned.library, "libtuner");
}

TEST(Run, SaysOfAModuleWithoutATurnThatItWasNotReached) {
  const auto run = tool::runOf({planned("tuner")}, RunLog().messages);

  const tool::Finding finding = tool::resultOf(run, 0);

  EXPECT_EQ(finding.outcome, Outcome::Unexpected);
  EXPECT_THAT(finding.message, HasSubstr("libtuner was not reached"));
}

TEST(Run, SaysWhichModuleKeptAnotherFromBeginningInTime) {
  RunLog log;
  log.wanted(1, "tuner").taken(1, "tuner").timedOut(13, "tuner");
  log.wanted(13, "wifi").begun(13, "wifi").timedOut(25, "wifi");
  const auto run = tool::runOf({planned("none"), planned("tuner"), planned("wifi")}, log.messages);

  const tool::Finding finding = tool::resultOf(run, 2);

  EXPECT_EQ(finding.outcome, Outcome::TimedOut);
  EXPECT_EQ(finding.message, "libwifi could not begin in time: libtuner still runs.");
  EXPECT_THAT(tool::resultOf(run, 1).message, HasSubstr("libtuner did not finish in time"));
}

TEST(Run, BlamesNoModuleThatHadEnded) {
  RunLog log;
  log.wanted(1, "tuner").taken(1, "tuner").succeeded(3, "tuner");
  log.wanted(4, "wifi").begun(4, "wifi").timedOut(16, "wifi");
  const auto run = tool::runOf({planned("none"), planned("tuner"), planned("wifi")}, log.messages);

  EXPECT_THAT(tool::resultOf(run, 2).message, HasSubstr("libwifi did not finish in time"));
}

TEST(Run, BlamesNobodyForAModuleThatBeganAndWasTooSlowItself) {
  RunLog log;
  log.wanted(1, "tuner").taken(1, "tuner").timedOut(13, "tuner");
  log.wanted(13, "wifi").taken(13, "wifi").timedOut(25, "wifi");
  log.wanted(25, "panel").begun(25, "panel");
  const auto run = tool::runOf({planned("tuner"), planned("wifi"), planned("panel")}, log.messages);

  EXPECT_THAT(tool::resultOf(run, 1).message, HasSubstr("libwifi did not finish in time"));
  EXPECT_THAT(tool::resultOf(run, 2).message, ::testing::Not(HasSubstr("could not begin")));
}

TEST(Run, CountsWhatAModuleSaysAfterItsTimeOutOnlyWhenItIsASuccess) {
  RunLog failing;
  failing.wanted(1, "tuner").taken(1, "tuner").timedOut(13, "tuner").failed(14, "tuner");
  RunLog late;
  late.wanted(1, "tuner").taken(1, "tuner").timedOut(13, "tuner").succeeded(14, "tuner");

  const auto ofFailing = tool::resultOf(tool::runOf({planned("tuner")}, failing.messages), 0);
  const auto ofLate = tool::resultOf(tool::runOf({planned("tuner")}, late.messages), 0);

  EXPECT_EQ(ofFailing.outcome, Outcome::TimedOut);
  EXPECT_EQ(ofLate.outcome, Outcome::Updated);
  EXPECT_THAT(ofLate.message, HasSubstr("only after the library had given it up"));
}

TEST(Run, TellsWhyAModuleOfItFailed) {
  RunLog log;
  log.wanted(1, "tuner").taken(1, "tuner").failed(3, "tuner");

  EXPECT_EQ(tool::resultOf(tool::runOf({planned("tuner")}, log.messages), 0).outcome, Outcome::ModuleFailed);
}

TEST(Run, GivesATurnToTheFirstModuleOfTheFirmwareThatSaidYes) {
  const auto of = [](const char* library) {
    return tool::PlannedModule{library, "sharedfw", "1.0.0", true, 10, {}};
  };
  RunLog log;
  log.asked("first", "sharedfw").notNeeded().asked("third", "sharedfw").asked("fourth", "sharedfw");
  log.add(1, "update_timeout_wrapper", MESSAGE_LOCK_WANTED, {"sharedfw", "10"});
  log.add(5, "update_timeout_wrapper", MESSAGE_LOCK_WANTED, {"sharedfw", "10"});

  const auto run =
      tool::runOf({of("libfirst"), of("libsecond"), of("libthird"), of("libfourth")}, log.messages);

  ASSERT_EQ(run.size(), 4u);
  EXPECT_FALSE(run[0].turn) << "which needs none";
  EXPECT_FALSE(run[1].turn) << "which was not asked";
  EXPECT_TRUE(run[2].turn);
  EXPECT_TRUE(run[3].turn);
}

TEST(Run, GivesATurnToTheFirstModuleOfTheFirmwareWhenNoneSaidYes) {
  RunLog log;
  log.wanted(1, "tuner").wanted(5, "strange");
  const auto run = tool::runOf({planned("panel"), planned("tuner")}, log.messages);

  ASSERT_EQ(run.size(), 2u);
  EXPECT_FALSE(run[0].turn);
  EXPECT_TRUE(run[1].turn);
}

TEST(Run, TakesUpAModuleThatWasNotToBeUpdatedAndIs) {
  tool::PlannedModule idle = planned("idle", 0);
  idle.due = false;
  idle.reason = {Outcome::NothingToDo, "It is not needed.", ""};

  const auto run =
      tool::runOf({idle, planned("tuner", 30)}, RunLog().wanted(1, "idle").wanted(3, "tuner").messages);

  ASSERT_EQ(run.size(), 2u);
  EXPECT_TRUE(run[0].planned.due);
  EXPECT_EQ(run[0].planned.expectedSeconds, 10u);
  EXPECT_EQ(run[0].planned.reason.message, "");
  EXPECT_EQ(run[1].planned.expectedSeconds, 30u) << "as planned";
}

TEST(Run, PassesOverWhatHadNoTurnBeforeOneThatHad) {
  const auto run = tool::runOf({planned("panel"), planned("tuner"), planned("wifi")},
                               RunLog().wanted(1, "tuner").messages);

  EXPECT_EQ(tool::begunOf(run), 2u);
  EXPECT_TRUE(tool::hasEnded(run, 0));
  EXPECT_FALSE(tool::hasEnded(run, 1));
  EXPECT_FALSE(tool::hasEnded(run, 2));
}

TEST(RunProgress, IsAtTheEndOfARunOfNoModule) {
  const RunProgress progress = progressAt(1, tool::runOf({}, RunLog().messages));

  EXPECT_EQ(progress.totalPercent, 100u);
  EXPECT_EQ(progress.modulesLeft, 0u);
  EXPECT_DOUBLE_EQ(progress.secondsLeft, 0);
}

TEST(RunLine, HasTheTotalWhereThereIsRoomForThirtyCharactersOfTheModule) {
  const auto run = tool::runOf({planned("tuner")}, RunLog().wanted(1, "tuner").taken(1, "tuner").messages);
  const RunProgress progress = progressAt(5, run, 40);
  const std::string total = "  in total 40 %, about 6 s left";
  const std::size_t room = std::string("1/1 ").size() + 30 + total.size();

  EXPECT_THAT(tool::liveLine(progress, room), ::testing::EndsWith(total));
  EXPECT_THAT(tool::liveLine(progress, room - 1), ::testing::Not(HasSubstr("in total")));
}

TEST(RunLine, IsCutFromTheRight) {
  RunLog log;
  const auto run = tool::runOf({planned("tuner"), planned("panel", 30)},
                               log.wanted(1, "tuner").taken(1, "tuner").messages);
  const RunProgress progress = progressAt(5, run, 40);

  EXPECT_EQ(tool::plainLine(progress),
            "1/2 libtuner: 40 %, 4 s of about 10 s; in total 10 %, about 36 s left");
  EXPECT_THAT(tool::liveLine(progress, 100), HasSubstr("in total 10 %, about 36 s left"));
  EXPECT_THAT(tool::liveLine(progress, 40),
              ::testing::AllOf(HasSubstr("1/2 "), HasSubstr("40 %"), ::testing::Not(HasSubstr("in total"))));
  EXPECT_EQ(tool::liveLine(progress, 4), "");
  for (std::size_t width = 5; width < 120; ++width) {
    EXPECT_LE(tool::liveLine(progress, width).size(), width);
  }
}

}  // namespace
