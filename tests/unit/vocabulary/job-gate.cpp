// SPDX-License-Identifier: Apache-2.0
#include "job-gate.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <string>

namespace {

class JobGate : public ::testing::Test {
 protected:
  ~JobGate() override { std::remove(path_.c_str()); }

  const std::string path_ = ::testing::TempDir() + "job-gate-" + std::to_string(getpid());
};

TEST_F(JobGate, IsReachedOrCancelledByWhoComesFirst) {
  fwjobs::Gate service = fwjobs::Gate::make(path_);
  fwjobs::Gate job = fwjobs::Gate::open(path_);

  EXPECT_TRUE(job.reachModule());
  EXPECT_FALSE(service.cancel());
  EXPECT_TRUE(job.reachModule());
  EXPECT_FALSE(job.isCancelled());

  fwjobs::Gate next = fwjobs::Gate::make(path_);

  EXPECT_TRUE(next.cancel());
  EXPECT_FALSE(fwjobs::Gate::open(path_).reachModule());
  EXPECT_TRUE(next.isCancelled());
}

TEST_F(JobGate, IsThereForAProcessWithoutStandardInput) {
  const fwjobs::Gate made = fwjobs::Gate::make(path_);

  close(STDIN_FILENO);
  const fwjobs::Gate opened = fwjobs::Gate::open(path_);

  EXPECT_TRUE(opened);
  EXPECT_EQ(open("/dev/null", O_RDONLY), STDIN_FILENO) << "it keeps its descriptor";
}

TEST_F(JobGate, IsNotThereWhereItsFileCannotBeUsed) {
  EXPECT_FALSE(fwjobs::Gate::open(path_));
  EXPECT_FALSE(fwjobs::Gate::make(path_ + "/below"));
  EXPECT_FALSE(fwjobs::Gate().reachModule());
}

}  // namespace
