// SPDX-License-Identifier: Apache-2.0
#include "interrupted.h"

#include <gtest/gtest.h>

#include <csignal>
#include <exception>
#include <string>

namespace {

TEST(Interrupted, CarriesTheSignalToWhereItEndsTheProcess) {
  const tool::Interrupted interrupted(SIGTERM);
  const std::exception& seen = interrupted;

  EXPECT_EQ(interrupted.signal(), SIGTERM);
  EXPECT_EQ(std::string(seen.what()), "interrupted");
}

}  // namespace
