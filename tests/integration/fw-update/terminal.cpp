// SPDX-License-Identifier: Apache-2.0
// The live line, on a real terminal.
#include <csignal>
#include <sstream>

#include "tool-test.h"

namespace {

using ::testing::ContainsRegex;
using ::testing::HasSubstr;
using ::testing::MatchesRegex;
using ::testing::Not;

class OnATerminal : public ToolTest {
 protected:
  void SetUp() override {
    ToolTest::SetUp();
    installModule("libtuner");
    installImage("tunerfw");
    describeComponent("tunerfw", "write_kib_per_second = 2048");
  }

  static Launch terminal(unsigned short columns, std::vector<std::string> environment = {}) {
    environment.emplace_back("TERM=xterm");
    environment.emplace_back("FW_UPDATE_LOG=none");
    return {environment, true, columns};
  }

  // What the terminal shows of each drawing of the line, without the codes.
  static std::vector<std::string> drawings(const std::string& transcript) {
    std::vector<std::string> lines;
    std::string text;
    for (std::size_t i = 0; i < transcript.size(); ++i) {
      if (transcript[i] == '\x1b') {
        while (i + 1 < transcript.size() && !isalpha(static_cast<unsigned char>(transcript[i]))) {
          ++i;
        }
      } else if (transcript[i] == '\r' || transcript[i] == '\n') {
        lines.push_back(text);
        text.clear();
      } else {
        text += transcript[i];
      }
    }
    return lines;
  }
};

TEST_F(OnATerminal, DrawsOneLineAgainAndAgain) {
  RunningTool update({"update", "libtuner"}, terminal(80));

  EXPECT_EQ(update.finish(), 0);

  EXPECT_THAT(drawings(update.out()),
              ::testing::Contains(MatchesRegex("libtuner  \\[#*\\.*\\] +[0-9]+ %  [0-9]+ s of about 60 s")));
  EXPECT_THAT(update.out(), HasSubstr("\r\x1b[K"));
  EXPECT_THAT(update.out(), HasSubstr("\x1b[32mlibtuner was updated. Version 0.0.0 -> 2.0.0"));
  EXPECT_THAT(update.out(), Not(HasSubstr("update requested")));
}

TEST_F(OnATerminal, KeepsWithinItsWidth) {
  for (const unsigned short columns : std::initializer_list<unsigned short>{20, 40, 60}) {
    installImage("tunerfw", std::to_string(columns));
    RunningTool update({"update", "libtuner"}, terminal(columns));

    EXPECT_EQ(update.finish(), 0);

    for (const std::string& line : drawings(update.out())) {
      EXPECT_LE(line.size(), columns) << line;
    }
  }
}

TEST_F(OnATerminal, BreaksSentencesBetweenWords) {
  installModule("libpanel");
  RunningTool download({"download", "--all"}, terminal(60));

  EXPECT_EQ(download.finish(), 11);

  EXPECT_THAT(download.out(), HasSubstr("panelempfw is not downloaded:\r\n"));
  for (const std::string& line : drawings(download.out())) {
    EXPECT_LE(line.size(), 60U) << line;
  }
}

TEST_F(OnATerminal, SaysInYellowThatItIsOverdue) {
  describeComponent("tunerfw", "stall_at_percent = 40");
  installImage("tunerfw", "2.0.0", 0);
  RunningTool update({"update", "libtuner"}, terminal(100));

  EXPECT_EQ(update.finish(), 7);

  EXPECT_THAT(update.out(), HasSubstr("\x1b[33mlibtuner  ["));
  EXPECT_THAT(drawings(update.out()),
              ::testing::Contains(ContainsRegex("[0-9] s over the expected 0 s; gives up at 2 s")));
}

TEST_F(OnATerminal, UsesNoColoursWhenToldSo) {
  RunningTool update({"update", "libtuner"}, terminal(80, {"NO_COLOR=1"}));

  EXPECT_EQ(update.finish(), 0);

  EXPECT_THAT(update.out(), Not(HasSubstr("\x1b[3")));
  EXPECT_THAT(update.out(), HasSubstr("\rlibtuner  ["));
}

TEST_F(OnATerminal, DrawsNothingOnADumbOne) {
  RunningTool update({"update", "libtuner"}, {{"TERM=dumb", "FW_UPDATE_LOG=none"}, true, 80});

  EXPECT_EQ(update.finish(), 0);

  EXPECT_THAT(update.out(), Not(HasSubstr("\x1b")));
  EXPECT_THAT(update.out(), HasSubstr("libtuner: update requested by upgrade-app"));
}

TEST_F(OnATerminal, FinishesTheLineWhenInterrupted) {
  describeComponent("tunerfw", "stall_at_percent = 40");
  RunningTool update({"update", "libtuner"}, terminal(80));
  update.waitFor(" 4");

  update.kill(SIGINT);

  EXPECT_EQ(update.finish(), -SIGINT);
  EXPECT_EQ(update.out().back(), '\n');
}

}  // namespace
