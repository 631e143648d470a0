// SPDX-License-Identifier: Apache-2.0
#include "signal-guards.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>

#include "file-descriptor.h"

namespace {

bool isPending(int signal) {
  sigset_t pending;
  sigemptyset(&pending);
  sigpending(&pending);
  return sigismember(&pending, signal) == 1;
}

int writeWhereNobodyReads() {
  base::Pipe pipe = base::makePipe();
  pipe.readEnd.reset();
  return write(pipe.writeEnd.get(), "x", 1) < 0 ? errno : 0;
}

TEST(HoldBackSigpipe, MakesABrokenPipeAnErrorAndNoMore) {
  {
    const base::HoldBackSigpipe guard;

    EXPECT_EQ(writeWhereNobodyReads(), EPIPE);
  }
  EXPECT_FALSE(isPending(SIGPIPE));
}

TEST(HoldBackSigpipe, LetsItThroughAgainWhenItGoes) {
  static volatile sig_atomic_t came = 0;
  signal(SIGPIPE, [](int) { came = 1; });
  { const base::HoldBackSigpipe guard; }
  raise(SIGPIPE);

  EXPECT_EQ(came, 1);
}

TEST(HoldBackSigpipe, LeavesASignalThatWasPendingBefore) {
  sigset_t sigpipe;
  sigemptyset(&sigpipe);
  sigaddset(&sigpipe, SIGPIPE);
  sigprocmask(SIG_BLOCK, &sigpipe, nullptr);
  raise(SIGPIPE);
  {
    const base::HoldBackSigpipe guard;
    writeWhereNobodyReads();
  }
  EXPECT_TRUE(isPending(SIGPIPE));
}

TEST(SignalsLater, KeepsThemUntilItGoes) {
  static volatile sig_atomic_t came = 0;
  signal(SIGUSR1, [](int) { came = 1; });
  {
    const base::SignalsLater later;
    raise(SIGUSR1);
    EXPECT_EQ(came, 0);
  }
  EXPECT_EQ(came, 1);
}

TEST(IgnoredSignal, IsToldFromOneThatIsNot) {
  signal(SIGHUP, SIG_IGN);

  EXPECT_TRUE(base::isIgnored(SIGHUP));
  EXPECT_FALSE(base::isIgnored(SIGTERM));
}

}  // namespace
