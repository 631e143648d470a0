// SPDX-License-Identifier: Apache-2.0
#include "program-start.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <stdexcept>

#include "file-descriptor.h"

namespace {

using base::ProgramStart;

struct Ended {
  int error = 0;
  int status = -1;
  std::string output;
};

Ended runShell(ProgramStart& start, const std::string& script,
               const std::vector<std::string>& environment = {"PATH=/usr/bin:/bin"}) {
  Ended ended;
  ended.error = start.runToEnd(
      {"sh", "-c", script}, environment, [&](std::string_view bytes) { ended.output += bytes; },
      ended.status);
  return ended;
}

TEST(ProgramStart, GivesTheStatusAndWhatWasWritten) {
  ProgramStart start;

  const Ended ended = runShell(start, "echo one; exit 3");

  EXPECT_EQ(ended.error, 0);
  EXPECT_TRUE(WIFEXITED(ended.status));
  EXPECT_EQ(WEXITSTATUS(ended.status), 3);
  EXPECT_EQ(ended.output, "one\n");
}

TEST(ProgramStart, SaysWhyAProgramCannotBeStarted) {
  ProgramStart start;
  int status = 0;

  EXPECT_EQ(start.runToEnd(
                {"no-such-program"}, {}, [](std::string_view) {}, status),
            ENOENT);
}

TEST(ProgramStart, GivesTheProgramThisEnvironmentAndNoOther) {
  ProgramStart start;

  EXPECT_EQ(runShell(start, "echo $ONE ${HOME-none}", {"ONE=1"}).output, "1 none\n");
}

TEST(ProgramStart, LaysOutWhatTheProgramFinds) {
  const base::Pipe words = base::makePipe();
  ASSERT_EQ(dup2(words.writeEnd.get(), 20), 20);  // one that programs would get
  ProgramStart start;
  start.withNothingAt(STDIN_FILENO).with(words.writeEnd.get(), 9).withNothingFrom(10).in("/usr");

  const Ended ended =
      runShell(start, "cat; pwd; echo nine >&9; [ -e /proc/self/fd/20 ] && echo open || echo closed");

  close(20);
  char text[8] = {};
  EXPECT_EQ(read(words.readEnd.get(), text, sizeof text), 5);
  EXPECT_STREQ(text, "nine\n");
  EXPECT_EQ(ended.output, "/usr\nclosed\n");
}

TEST(ProgramStart, StartsInADirectoryThatIsOpen) {
  const base::FileDescriptor directory(open("/usr/lib", O_PATH | O_DIRECTORY | O_CLOEXEC));
  ProgramStart start;
  start.in(directory.get());

  EXPECT_EQ(runShell(start, "pwd -P").output, std::filesystem::canonical("/usr/lib").string() + "\n");
}

TEST(ProgramStart, LeavesNothingOfTheCallersSessionAndSignals) {
  signal(SIGTERM, SIG_IGN);
  ProgramStart start;
  start.apart();

  const Ended ended =
      runShell(start, "[ $(cut -d' ' -f6 /proc/$$/stat) = $$ ] && echo apart; kill -TERM $$; echo no");

  signal(SIGTERM, SIG_DFL);
  EXPECT_EQ(ended.output, "apart\n");
  EXPECT_TRUE(WIFSIGNALED(ended.status));
}

TEST(ProgramStart, EndsTheProgramWhenItsOutputIsNotWanted) {
  ProgramStart start;
  int status = 0;
  const auto refuse = [](std::string_view) { throw std::runtime_error("not wanted"); };

  EXPECT_THROW(
      start.runToEnd({"sh", "-c", "echo one; exec sleep 1000"}, {"PATH=/usr/bin:/bin"}, refuse, status),
      std::runtime_error);

  EXPECT_EQ(base::waitForEnd(-1), -1);  // nobody is left
}

TEST(EnvironmentWithout, LeavesOutTheVariableAlone) {
  setenv("FW_ONE", "1", 1);
  setenv("FW_ONE_MORE", "2", 1);

  const auto variables = base::environmentWithout("FW_ONE");

  EXPECT_THAT(variables, ::testing::Contains("FW_ONE_MORE=2"));
  EXPECT_THAT(variables, ::testing::Not(::testing::Contains("FW_ONE=1")));
}

}  // namespace
