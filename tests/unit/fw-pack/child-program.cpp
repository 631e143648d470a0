// SPDX-License-Identifier: Apache-2.0
#include "child-program.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <string_view>

#include "exit-code.h"
#include "temporary-folder.h"

namespace fs = std::filesystem;

namespace {

using fwpack::Failure;
using ::testing::HasSubstr;
using ::testing::ThrowsMessage;

struct Ended {
  bool well = false;
  std::string output;
};

Ended runShell(const std::string& script) {
  Ended ended;
  ended.well = fwpack::runProgram({"sh", "-c", script}, "dash",
                                  [&](std::string_view bytes) { ended.output.append(bytes); });
  return ended;
}

TEST(ChildProgram, EndsWellWithExitCode0Alone) {
  EXPECT_TRUE(runShell("exit 0").well);
  EXPECT_FALSE(runShell("exit 1").well);
  EXPECT_FALSE(runShell("exit 127").well);
  EXPECT_FALSE(runShell("kill -9 $$").well);
}

TEST(ChildProgram, GivesItsStandardOutputAlone) {
  ::testing::internal::CaptureStderr();

  const Ended ended = runShell("echo one; echo two >&2; echo three");

  EXPECT_EQ(::testing::internal::GetCapturedStderr(), "");
  EXPECT_EQ(ended.output, "one\nthree\n");
}

TEST(ChildProgram, GivesMoreThanAPipeHolds) {
  EXPECT_EQ(runShell("head -c 300000 /dev/zero").output.size(), 300000U);
}

// What takes the output may leave any error of its own behind.
TEST(ChildProgram, IsReadToItsEndWhateverErrnoSays) {
  int blocks = 0;
  alarm(30);  // instead of reading for ever

  fwpack::runProgram({"echo", "end"}, "coreutils", [&](std::string_view) {
    ++blocks;
    errno = EINTR;
  });

  alarm(0);
  EXPECT_EQ(blocks, 1);
}

TEST(ChildProgram, HasNoInput) {
  EXPECT_EQ(runShell("cat; echo end").output, "end\n");
}

std::string signalSeen;  // the name of a file that says so

// Whatever happens to this program meanwhile.
TEST(ChildProgram, IsWaitedForToItsEnd) {
  const base::TemporaryFolder directory(fs::temp_directory_path() / "fw-pack");
  signalSeen = directory.path() + "/seen";
  struct sigaction action = {};
  action.sa_handler = [](int) { close(open(signalSeen.c_str(), O_WRONLY | O_CREAT, 0600)); };
  struct sigaction before = {};
  ASSERT_EQ(sigaction(SIGUSR1, &action, &before), 0);

  const Ended ended = runShell("exec >&-; while [ ! -e " + signalSeen + " ]; do kill -USR1 " +
                               std::to_string(getpid()) + "; done; exit 3");

  EXPECT_FALSE(ended.well);
  sigaction(SIGUSR1, &before, nullptr);
}

TEST(ChildProgram, IsToldNoTime) {
  setenv("SOURCE_DATE_EPOCH", "5", 1);
  setenv("SOURCE_DATE", "6", 1);

  EXPECT_EQ(runShell("echo ${SOURCE_DATE_EPOCH-none} ${SOURCE_DATE-none}").output, "none 6\n");
}

TEST(ChildProgram, ThatIsMissingIsNamedWithItsPackage) {
  EXPECT_THAT([] { fwpack::runProgram({"no-such-program"}, "its-package", [](std::string_view) {}); },
              ThrowsMessage<Failure>(HasSubstr("no-such-program cannot be run: No such file or directory; "
                                               "install its-package")));
  EXPECT_THAT([] { fwpack::runProgram({"/"}, "its-package", [](std::string_view) {}); },
              ThrowsMessage<Failure>(testing::Not(HasSubstr("install"))));
}

}  // namespace
