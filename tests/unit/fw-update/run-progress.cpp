// SPDX-License-Identifier: Apache-2.0
#include "update-all/run-progress.h"

#include <gmock/gmock.h>

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
  RunLog& taken(int second, const std::string& name) {
    return add(second, "updateFirmware", MESSAGE_LOCK_TAKEN, {name + "fw"})
        .add(second, "updateFirmware", MESSAGE_WRITE_BEGINS, {name + "fw"});
  }
  RunLog& succeeded(int second, const std::string& name) {
    return add(second, "updateFirmware", MESSAGE_WRITE_SUCCEEDED, {name + "fw"});
  }
  RunLog& add(int second, const char* function, const char* format, std::vector<std::string> arguments) {
    tool::LogMessage logged = message(format, std::move(arguments));
    logged.function = function;
    logged.time = kStart + seconds(second);
    messages.push_back(logged);
    return *this;
  }

  tool::LogMessages messages;
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
