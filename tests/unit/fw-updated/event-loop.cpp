// SPDX-License-Identifier: Apache-2.0
#include "event-loop.h"

#include <gtest/gtest.h>
#include <sys/ptrace.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <optional>

namespace {

using updated::EventLoop;
using updated::Source;

// Ends the loop's run.
struct Over {};

// A process that waits for its end.
pid_t startWaiting() {
  const pid_t child = fork();
  if (child == 0) {
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    while (true) {
      pause();
    }
  }
  return child;
}

// How the child ended; nothing when the loop did not hear of it.
std::optional<int> heard(EventLoop& loop, pid_t child) {
  std::optional<int> status;
  const Source ending = loop.whenEnded(child, [&status](int ended) {
    status = ended;
    throw Over();
  });
  const Source patience = loop.after(std::chrono::seconds(20), [] { throw Over(); });
  EXPECT_THROW(loop.run(), Over);
  return status;
}

TEST(EventLoop, HearsHowAChildEnded) {
  EventLoop loop;
  const pid_t child = startWaiting();
  kill(child, SIGTERM);

  const auto status = heard(loop, child);

  ASSERT_TRUE(status);
  EXPECT_TRUE(WIFSIGNALED(*status));
  EXPECT_EQ(WTERMSIG(*status), SIGTERM);
  EXPECT_EQ(waitpid(child, nullptr, WNOHANG), -1) << "it has been waited for";
}

// As a debugger does: the kernel tells of the end at once, but nobody else can wait for the process
// before the debugger has.
TEST(EventLoop, HearsOfAChildThatAnotherProcessTraces) {
  EventLoop loop;
  const pid_t child = startWaiting();
  int ready[2];
  ASSERT_EQ(pipe(ready), 0);
  const pid_t tracer = fork();
  if (tracer == 0) {
    const char answer = ptrace(PTRACE_SEIZE, child, nullptr, nullptr) == 0 ? 'y' : 'n';
    if (write(ready[1], &answer, 1) != 1) {
      _exit(1);
    }
    siginfo_t info{};
    waitid(P_PID, static_cast<id_t>(child), &info, WEXITED | WNOWAIT);
    usleep(300'000);
    _exit(waitpid(child, nullptr, 0) == child ? 0 : 1);
  }
  char answer = 'n';
  ASSERT_EQ(read(ready[0], &answer, 1), 1);
  close(ready[0]);
  close(ready[1]);
  if (answer == 'n') {
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
    waitpid(tracer, nullptr, 0);
    GTEST_SKIP() << "nobody may trace here";
  }
  kill(child, SIGKILL);

  const auto status = heard(loop, child);

  ASSERT_TRUE(status);
  EXPECT_EQ(WTERMSIG(*status), SIGKILL);
  waitpid(tracer, nullptr, 0);
}

}  // namespace
