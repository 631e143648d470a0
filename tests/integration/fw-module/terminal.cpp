// SPDX-License-Identifier: Apache-2.0
// fw-module check on a real terminal, and its end by Ctrl-C.
#include <sched.h>
#include <sys/prctl.h>
#include <sys/wait.h>

#include <cerrno>
#include <csignal>
#include <sstream>

#include "fw-module-test.h"
#include "running-tool.h"

namespace {

using ::testing::HasSubstr;
using ::testing::Not;

constexpr const char* kModule = "/tmp/author/x.so";
constexpr unsigned short kColumns = 80;
constexpr unsigned short kNarrow = 50;

class CheckOnATerminal : public FwModuleTest {
 protected:
  static std::string shown(unsigned short columns, std::vector<std::string> environment = {}) {
    environment.emplace_back("TERM=xterm");
    const std::string file = exists(kModule) ? kModule : copyOf("plain-minus-one.so", "x.so");
    RunningTool check({"check", file}, {environment, true, columns});
    EXPECT_EQ(check.finish(), 3);
    return check.out();
  }

  // Without the codes of colours, and of the line that says what is being checked.
  static std::vector<std::string> plainLines(const std::string& transcript) {
    std::vector<std::string> lines(1);
    for (std::size_t i = 0; i < transcript.size(); ++i) {
      if (transcript[i] == '\x1b') {
        i = transcript.find_first_of("mK", i);
      } else if (transcript[i] == '\r' || transcript[i] == '\n') {
        lines.emplace_back();
      } else {
        lines.back() += transcript[i];
      }
    }
    return lines;
  }
};

TEST_F(CheckOnATerminal, SaysWhatIsBeingCheckedAndRemovesThatLine) {
  const std::string transcript = shown(kColumns);

  EXPECT_THAT(transcript, HasSubstr("\rchecking: "));
  EXPECT_THAT(transcript, HasSubstr("\r\x1b[Kx: a module for the firmware soundfw"));
}

TEST_F(CheckOnATerminal, ColoursTheFindings) {
  const std::string transcript = shown(kColumns);

  EXPECT_THAT(transcript, HasSubstr("\x1b[33mwarning\x1b[0m      result-code "));
  EXPECT_THAT(transcript, HasSubstr("\x1b[1m49 checks: "));
}

TEST_F(CheckOnATerminal, UsesNoColoursWhenToldSo) {
  const std::string transcript = shown(kColumns, {"NO_COLOR=1"});

  EXPECT_THAT(transcript, Not(HasSubstr("m49 checks")));
  EXPECT_THAT(transcript, HasSubstr("\nwarning      result-code "));
}

TEST_F(CheckOnATerminal, KeepsWithinItsWidth) {
  for (const unsigned short columns : {kNarrow, kColumns}) {
    for (const std::string& line : plainLines(shown(columns))) {
      EXPECT_LE(line.size(), columns) << line;
    }
  }
}

class InterruptedCheck : public FwModuleTest, public ::testing::WithParamInterface<int> {
 protected:
  // What the command leaves becomes this process's child.
  void SetUp() override {
    FwModuleTest::SetUp();
    prctl(PR_SET_CHILD_SUBREAPER, 1);
  }

  // A module that hangs in a process of its own, which tells so in kWork: the host's paths
  // are shown to read alone, unless they are kept.
  static std::vector<std::string> checkOfAHangingModule() {
    return {"check", copyOf("hang-with-a-process.so", "x.so"), "--keep", kWork};
  }

  // Until the module's own process runs and hangs.
  static void waitForTheHang() {
    while (!exists(std::string(kWork) + "helper")) {
      sched_yield();
    }
  }

  static void expectNothingLeft() {
    EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);
    EXPECT_EQ(errno, ECHILD);
  }
};

TEST_P(InterruptedCheck, EndsTheHangingModuleAndWhatItStarted) {
  RunningTool check(checkOfAHangingModule(), {});
  waitForTheHang();

  check.kill(GetParam());

  EXPECT_EQ(check.finish(), -GetParam());
  expectNothingLeft();
  EXPECT_EQ(check.out() + check.err(), "");
}
INSTANTIATE_TEST_SUITE_P(BySignal, InterruptedCheck, ::testing::Values(SIGINT, SIGTERM, SIGHUP));

TEST_F(InterruptedCheck, LeavesAnEmptyLineOnATerminal) {
  RunningTool check(checkOfAHangingModule(), {{"TERM=xterm"}, true, kColumns});
  waitForTheHang();

  check.type("\x03");

  EXPECT_EQ(check.finish(), -SIGINT);
  expectNothingLeft();
  EXPECT_THAT(check.out(), ::testing::EndsWith("\r\x1b[K"));
}

}  // namespace
