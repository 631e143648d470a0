// SPDX-License-Identifier: Apache-2.0
#include "ending-signals.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <system_error>

#include "limited-resource.h"

namespace {

bool isBlocked(int signal) {
  sigset_t blocked;
  sigprocmask(SIG_BLOCK, nullptr, &blocked);
  return sigismember(&blocked, signal) == 1;
}

TEST(EndingSignals, AreTakenOneByOneAndNotTwice) {
  const fwmodule::EndingSignals signals;
  EXPECT_EQ(signals.take(), 0);

  raise(SIGTERM);

  EXPECT_EQ(signals.take(), SIGTERM);
  EXPECT_EQ(signals.take(), 0);
}

TEST(EndingSignals, EndTheProcessAsEverAfterwards) {
  { const fwmodule::EndingSignals signals; }

  EXPECT_FALSE(isBlocked(SIGTERM));
  EXPECT_EXIT(raise(SIGTERM), ::testing::KilledBySignal(SIGTERM), "");
}

TEST(EndingSignals, ThatCannotBeTakenEndTheProcessAsEver) {
  const LimitedResource limit = LimitedResource::noDescriptors();

  try {
    const fwmodule::EndingSignals signals;
    FAIL() << "they are taken";
  } catch (const std::system_error& error) {
    EXPECT_EQ(error.code().value(), EMFILE);
  }

  EXPECT_FALSE(isBlocked(SIGTERM));
}

}  // namespace
