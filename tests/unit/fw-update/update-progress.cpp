// SPDX-License-Identifier: Apache-2.0
#include "progress/update-progress.h"

#include <gmock/gmock.h>

#include "library-messages.h"
#include "messages.h"

namespace {

using std::chrono::seconds;
using ::testing::HasSubstr;
using ::testing::Not;
using tool::Phase;
using tool::UpdateProgress;

UpdateProgress updating(unsigned int percent, double elapsed) {
  UpdateProgress progress;
  progress.module = "libtuner";
  progress.phase = Phase::Updating;
  progress.percent = percent;
  progress.elapsed = elapsed;
  progress.limit = tool::TimeLimit{10, 12};
  return progress;
}

tool::LogMessage at(std::chrono::steady_clock::time_point time, const char* format,
                    std::vector<std::string> arguments) {
  auto logged = message(format, std::move(arguments));
  logged.time = time;
  return logged;
}

TEST(ProgressPhase, FollowsTheLibrarysMessages) {
  const auto start = std::chrono::steady_clock::now();
  const auto now = start + seconds(9);
  const auto limit = at(start + seconds(2), MESSAGE_LOCK_WANTED, {"tunerfw", "10"});
  const auto begun = at(start + seconds(5), MESSAGE_LOCK_TAKEN, {"tunerfw"});

  const auto checking = tool::progressOf({}, "libtuner", start, now);
  const auto waiting = tool::progressOf({limit}, "libtuner", start, now);
  const auto updating = tool::progressOf({limit, begun}, "libtuner", start, now);

  EXPECT_EQ(checking.phase, Phase::Checking);
  EXPECT_DOUBLE_EQ(checking.elapsed, 9);
  EXPECT_EQ(waiting.phase, Phase::Waiting);
  EXPECT_DOUBLE_EQ(waiting.elapsed, 7);
  EXPECT_EQ(updating.phase, Phase::Updating);
  EXPECT_DOUBLE_EQ(updating.elapsed, 4);
}

TEST(ProgressLine, GivesNoEndWhereTheLibraryNeverGivesUp) {
  UpdateProgress overdue = updating(90, 13.5);
  overdue.limit = tool::TimeLimit{10, 0};

  EXPECT_EQ(tool::timeText(overdue), "4 s over the expected 10 s");
}

TEST(ProgressPhase, OfAnOwnProcedureHasNoTimeLimit) {
  const auto start = std::chrono::steady_clock::now();

  const auto progress = tool::progressOf({at(start, MESSAGE_PROCEDURE_BEGINS, {""})}, "libEXT-remote", start,
                                         start + seconds(3));

  EXPECT_EQ(progress.phase, Phase::Updating);
  EXPECT_EQ(tool::timeText(progress), "3 s");
}

TEST(ProgressTime, SaysPlainlyWhenItIsOverdue) {
  EXPECT_EQ(tool::timeText(updating(30, 10)), "10 s of about 10 s");
  EXPECT_EQ(tool::timeText(updating(30, 10.2)), "1 s over the expected 10 s; gives up at 12 s");
}

TEST(ProgressTime, TellsWhatIsWaitedForBeforeTheModuleWorks) {
  UpdateProgress progress = updating(100, 4);
  progress.phase = Phase::Waiting;

  EXPECT_EQ(tool::plainLine(progress), "libtuner: waiting for another update to finish, 4 s");
  EXPECT_EQ(tool::liveLine(progress, 80), "libtuner  waiting for another update to finish, 4 s");
}

TEST(ProgressTime, IsAllThatIsToldBeforeTheModuleIsKnown) {
  UpdateProgress progress;
  progress.phase = Phase::Waiting;

  EXPECT_EQ(tool::plainLine(progress), "waiting for another update to finish, 0 s");
  EXPECT_EQ(tool::liveLine(progress, 80), "waiting for another update to finish, 0 s");
}

TEST(PlainLine, IsPercentAndTime) {
  EXPECT_EQ(tool::plainLine(updating(34, 3.9)), "libtuner: 34 %, 3 s of about 10 s");
}

TEST(LiveLine, HasABarWhenThereIsRoom) {
  EXPECT_EQ(tool::liveLine(updating(34, 3), 79),
            "libtuner  [##########....................]   34 %  3 s of about 10 s");
  EXPECT_EQ(tool::liveLine(updating(100, 3), 46), "libtuner  [########]  100 %  3 s of about 10 s");
}

TEST(LiveLine, NeverHasMoreThanAFullBar) {
  EXPECT_THAT(tool::liveLine(updating(4000, 3), 79), HasSubstr("[##############################]"));
}

TEST(LiveLine, DropsBarNameAndWordsAsItNarrows) {
  const UpdateProgress late = updating(34, 10.5);

  EXPECT_THAT(tool::liveLine(late, 100), HasSubstr("#"));
  EXPECT_EQ(tool::liveLine(late, 65), "libtuner   34 %  1 s over the expected 10 s; gives up at 12 s");
  EXPECT_EQ(tool::liveLine(late, 55), " 34 %  1 s over the expected 10 s; gives up at 12 s");
  EXPECT_EQ(tool::liveLine(late, 30), " 34 %  1 s over");
}

TEST(LiveLine, FitsEveryWidth) {
  for (const double elapsed : {0.0, 9.0, 11.0}) {
    for (std::size_t width = 0; width < 120; ++width) {
      EXPECT_LE(tool::liveLine(updating(55, elapsed), width).size(), width);
    }
  }
}

TEST(LiveLine, ShowsNoPercentThatTheModuleDoesNotReport) {
  UpdateProgress progress = updating(0, 3);
  progress.percent.reset();

  EXPECT_EQ(tool::liveLine(progress, 80), "libtuner  3 s of about 10 s");
}

TEST(LiveLine, LetsNoControlCharactersThrough) {
  UpdateProgress progress = updating(1, 1);
  progress.module = "lib\x1b[2J";

  EXPECT_THAT(tool::liveLine(progress, 80), Not(HasSubstr("\x1b")));
}

}  // namespace
