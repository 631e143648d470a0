// SPDX-License-Identifier: Apache-2.0
#include "file-descriptor.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>

namespace {

using base::FileDescriptor;

bool isOpen(int number) {
  return fcntl(number, F_GETFD) >= 0;
}

FileDescriptor openNothing() {
  return FileDescriptor(open("/dev/null", O_RDONLY | O_CLOEXEC));
}

TEST(FileDescriptor, ClosesWhatItOwnsOnce) {
  FileDescriptor first = openNothing();
  const int number = first.get();
  FileDescriptor second = std::move(first);

  EXPECT_FALSE(first);  // NOLINT(bugprone-use-after-move)
  EXPECT_TRUE(isOpen(number));
  second.reset();

  EXPECT_FALSE(second);
  EXPECT_FALSE(isOpen(number));
}

TEST(FileDescriptor, ClosesTheOldOneForANewOne) {
  FileDescriptor owner = openNothing();
  FileDescriptor other = openNothing();
  const int old = owner.get();
  const int taken = other.get();

  owner = std::move(other);

  EXPECT_FALSE(isOpen(old));
  EXPECT_EQ(owner.get(), taken);
  EXPECT_TRUE(isOpen(taken));
}

// What a program opens that was started without standard input.
TEST(FileDescriptor, MayBeTheFirstOfAll) {
  const FileDescriptor input(fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 3));
  close(STDIN_FILENO);
  FileDescriptor first = openNothing();
  const int number = first.get();
  const bool isThere = static_cast<bool>(first);
  first.reset();
  const bool isStillOpen = isOpen(STDIN_FILENO);
  dup2(input.get(), STDIN_FILENO);

  EXPECT_EQ(number, STDIN_FILENO);
  EXPECT_TRUE(isThere);
  EXPECT_FALSE(isStillOpen);
}

TEST(FileDescriptor, KeepsErrnoWhenItCloses) {
  FileDescriptor wrong(1000000);
  errno = ENOSPC;

  wrong.reset();

  EXPECT_EQ(errno, ENOSPC);
}

TEST(FileDescriptor, NamesWhatIsOpened) {
  const FileDescriptor file = openNothing();

  EXPECT_EQ(file.path(), "/proc/self/fd/" + std::to_string(file.get()));
  EXPECT_EQ(file.target(), "/dev/null");
  EXPECT_EQ(FileDescriptor().target(), "/proc/self/fd/-1");
}

}  // namespace
