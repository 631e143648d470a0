#include "deadline.h"

#include <gtest/gtest.h>
#include <unistd.h>

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

TEST(Deadline, SeesTheOtherEndGo) {
  base::Pipe pipe = base::makePipe();
  pipe.writeEnd.reset();

  EXPECT_EQ(base::Deadline(-1).waitToRead(pipe.readEnd.get()), 1);
}

}  // namespace
