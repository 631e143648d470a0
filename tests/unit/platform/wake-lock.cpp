// SPDX-License-Identifier: Apache-2.0
// The kernel's wake lock as an object, against files in place of the kernel's.
#include "power/wake-lock.h"

#include <gtest/gtest.h>
#include <sys/mount.h>

#include <cerrno>
#include <filesystem>
#include <utility>

#include "device-environment.h"
#include "temporary-mount.h"

namespace {

using fwplatform::WakeLock;

constexpr char kLocks[] = "/sys/power/wake_lock";
constexpr char kUnlocks[] = "/sys/power/wake_unlock";

class KernelWakeLock : public DeviceTest {
 protected:
  void SetUp() override {
    DeviceTest::SetUp();
    writeFile(kLocks, "");
    writeFile(kUnlocks, "");
  }

  // What was written since the last question.
  static std::string unlocked() {
    std::string name = readFile(kUnlocks);
    writeFile(kUnlocks, "");
    return name;
  }

 private:
  TemporaryMount power_ = TemporaryMount::memory("/sys/power");
};

TEST_F(KernelWakeLock, IsGivenBackOnce) {
  {
    WakeLock lock;
    ASSERT_EQ(lock.take("one", 5), 0);
    EXPECT_EQ(readFile(kLocks), "one 5000000");

    lock.release();
    EXPECT_EQ(unlocked(), "one");
  }

  EXPECT_EQ(unlocked(), "");
}

TEST_F(KernelWakeLock, GivesTheFirstBackBeforeItTakesAnother) {
  WakeLock lock;
  lock.take("one", 5);

  lock.take("two", 5);

  EXPECT_EQ(unlocked(), "one");
}

TEST_F(KernelWakeLock, GivesBackWhatItHeldWhenAnotherIsMovedIn) {
  WakeLock lock;
  WakeLock other;
  lock.take("one", 5);
  other.take("two", 5);

  lock = std::move(other);

  EXPECT_EQ(unlocked(), "one");
  lock.release();
  EXPECT_EQ(unlocked(), "two");
}

TEST_F(KernelWakeLock, GivesBackNothingThatTheKernelRefused) {
  std::filesystem::remove(kLocks);
  WakeLock lock;
  EXPECT_EQ(lock.take("one", 5), -ENOENT);
  std::filesystem::create_symlink("/dev/full", kLocks);
  EXPECT_EQ(lock.take("two", 5), -ENOSPC);

  lock.release();

  EXPECT_EQ(unlocked(), "");
}

}  // namespace
