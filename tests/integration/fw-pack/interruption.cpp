// SPDX-License-Identifier: Apache-2.0
// Long commands: what they show on a terminal, and what Ctrl-C leaves.
#include <sched.h>
#include <sys/prctl.h>
#include <sys/wait.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <filesystem>

#include "fw-pack-test.h"
#include "running-tool.h"

namespace {

using ::testing::HasSubstr;

namespace fs = std::filesystem;

constexpr std::uintmax_t kLarge = std::uintmax_t{1} << 30U;  // sparse
constexpr const char* kTemporary = "/tmp/maker-temporary";

class LongCommand : public PackTest, public ::testing::WithParamInterface<int> {
 protected:
  // What the command leaves becomes this process's child.
  void SetUp() override {
    PackTest::SetUp();
    prctl(PR_SET_CHILD_SUBREAPER, 1);
    fs::current_path(kWork);
    fs::create_directory(kTemporary);
    setenv("TMPDIR", kTemporary, 1);
  }

  // Until there is something in an output that has not its name yet.
  static void waitForOutput(const std::string& name) {
    for (;; sched_yield()) {
      for (const std::string& file : filesInWork()) {
        std::error_code gone;
        if (file.find(name + ".") == 0 && fs::file_size(kWork + file, gone) > 0 && !gone) {
          return;
        }
      }
    }
  }

  static void expectNothingLeft(const std::vector<std::string>& filesBefore) {
    EXPECT_EQ(filesInWork(), filesBefore);
    EXPECT_TRUE(fs::is_empty(kTemporary));
    EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);
    EXPECT_EQ(errno, ECHILD);
  }
};

TEST_P(LongCommand, LeavesNoUnfinishedPackageWhenItIsInterrupted) {
  fs::resize_file("image.bin", kLarge);
  writeKeys();
  const std::vector<std::string> before = filesInWork();
  RunningTool pack(usbCommand(), {});
  waitForOutput("tunerfw.bin");

  pack.kill(GetParam());

  EXPECT_EQ(pack.finish(), -GetParam());
  expectNothingLeft(before);
}

TEST_P(LongCommand, EndsTheProgramThatItStartedWhenItIsInterrupted) {
  ASSERT_EQ(std::system("head -c 33554432 /dev/urandom >image.bin"), 0);
  const std::vector<std::string> before = filesInWork();
  RunningTool pack(
      {"emp", "image.bin", "--id", "tunerempfw", "--version", "2.0.0", "--expected-time", "30", "--unsigned"},
      {});
  waitForOutput("tunerempfw.img");

  pack.kill(GetParam());

  EXPECT_EQ(pack.finish(), -GetParam());
  expectNothingLeft(before);
}

INSTANTIATE_TEST_SUITE_P(BySignal, LongCommand, ::testing::Values(SIGINT, SIGTERM, SIGHUP));

TEST_F(LongCommand, SaysOnATerminalHowFarItIs) {
  fs::resize_file("image.bin", kLarge / 16);
  RunningTool pack({"info", "image.bin", "--version", "1", "--expected-time", "30"},
                   {{"TERM=xterm"}, true, 80});

  EXPECT_EQ(pack.finish(), 0);

  EXPECT_THAT(pack.out(), HasSubstr("\rreading image.bin: 50 %\x1b[K"));
  EXPECT_THAT(pack.out(), HasSubstr("\r\x1b[Kinfo.json"));
}

TEST_F(LongCommand, KeepsThatLineWithinTheTerminalsWidth) {
  fs::resize_file("image.bin", kLarge / 16);
  RunningTool pack({"info", "image.bin", "--version", "1", "--expected-time", "30"},
                   {{"TERM=xterm"}, true, 16});

  EXPECT_EQ(pack.finish(), 0);

  EXPECT_THAT(pack.out(), HasSubstr("\rreading image.b\x1b[K"));
}

TEST_F(LongCommand, SaysNothingElsewhere) {
  fs::resize_file("image.bin", kLarge / 16);

  EXPECT_EQ(run({"info", "image.bin", "--version", "1", "--expected-time", "30"}).error, "");
}

}  // namespace
