// SPDX-License-Identifier: Apache-2.0
#include "deadline.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <fstream>
#include <string>
#include <thread>

#include "file-descriptor.h"

namespace {

TEST(Deadline, IsOverAt0AndNeverWithoutATime) {
  EXPECT_EQ(base::Deadline(0).leftMs(), 0);
  EXPECT_EQ(base::Deadline(-1).leftMs(), -1);
  EXPECT_GT(base::Deadline(100000).leftMs(), 0);
}

TEST(Deadline, WaitsForWhatCanBeReadOrHasEnded) {
  base::Pipe pipe = base::makePipe();

  EXPECT_EQ(base::Deadline(1).waitToRead(pipe.readEnd.get()), 0);
  ASSERT_EQ(write(pipe.writeEnd.get(), "x", 1), 1);
  EXPECT_EQ(base::Deadline(-1).waitToRead(pipe.readEnd.get()), 1);
}

// "S" while it sleeps.
char stateOf(pid_t thread) {
  std::string line;
  std::getline(std::ifstream("/proc/self/task/" + std::to_string(thread) + "/stat"), line);
  return line.at(line.rfind(')') + 2);
}

TEST(Deadline, WaitsUntilSomethingComes) {
  base::Pipe pipe = base::makePipe();
  const pid_t waiting = gettid();
  std::thread other([&] {
    while (stateOf(waiting) != 'S') {
    }
    EXPECT_EQ(write(pipe.writeEnd.get(), "x", 1), 1);
  });

  const int ready = base::Deadline(-1).waitToRead(pipe.readEnd.get());

  other.join();
  EXPECT_EQ(ready, 1);
}

TEST(Deadline, SeesTheOtherEndGo) {
  base::Pipe pipe = base::makePipe();
  pipe.writeEnd.reset();

  EXPECT_EQ(base::Deadline(-1).waitToRead(pipe.readEnd.get()), 1);
}

}  // namespace
