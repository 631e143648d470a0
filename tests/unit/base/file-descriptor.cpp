// SPDX-License-Identifier: Apache-2.0
#include "file-descriptor.h"

#include <fcntl.h>
#include <gtest/gtest.h>

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
