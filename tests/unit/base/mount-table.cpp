// SPDX-License-Identifier: Apache-2.0
#include "mount-table.h"

#include <gmock/gmock.h>

#include <fstream>

#include "temporary-folder.h"

namespace {

using base::Mount;

// A directory that stands for a process.
class MountTable : public ::testing::Test {
 protected:
  std::vector<Mount> mountsOf(const std::string& table) const {
    std::ofstream(process_.path() + "/mountinfo") << table;
    return base::mounts(process_.path());
  }

 private:
  const base::TemporaryFolder process_{"/tmp/mount-table"};
};

TEST_F(MountTable, TellsEachMountInItsOrder) {
  const auto mounts = mountsOf(
      "21 1 8:1 / / rw,relatime shared:1 - ext4 /dev/sda1 rw,errors=remount-ro\n"
      "36 21 7:0 /below /opt/emps/tunerempfw ro,nosuid,nodev - squashfs /dev/loop0 ro\n");

  ASSERT_EQ(mounts.size(), 2U);
  EXPECT_EQ(mounts[0].place, "/");
  EXPECT_EQ(mounts[0].type, "ext4");
  EXPECT_EQ(mounts[1].number, "36");
  EXPECT_EQ(mounts[1].parent, "21");
  EXPECT_EQ(mounts[1].fileSystem, "7:0");
  EXPECT_EQ(mounts[1].root, "/below");
  EXPECT_EQ(mounts[1].place, "/opt/emps/tunerempfw");
  EXPECT_EQ(mounts[1].options, "ro,nosuid,nodev");
  EXPECT_EQ(mounts[1].type, "squashfs");
  EXPECT_EQ(mounts[1].source, "/dev/loop0");
}

TEST_F(MountTable, FindsTheTypeBehindAnyNumberOfWords) {
  const auto mounts =
      mountsOf("36 21 7:0 / /a ro shared:1 master:2 propagate_from:3 - squashfs /dev/loop0 ro\n");

  ASSERT_EQ(mounts.size(), 1U);
  EXPECT_EQ(mounts[0].type, "squashfs");
}

TEST_F(MountTable, ReadsWhatTheKernelWroteInOctal) {
  const auto mounts = mountsOf("36 21 0:5 / /media/a\\040b\\011c\\134d\\9 rw - vfat /dev/my\\040disk rw\n");

  ASSERT_EQ(mounts.size(), 1U);
  EXPECT_EQ(mounts[0].place, "/media/a b\tc\\d\\9");
  EXPECT_EQ(mounts[0].source, "/dev/my disk");
}

TEST_F(MountTable, LeavesOutALineWithoutAPlace) {
  EXPECT_TRUE(mountsOf("36 21 0:5 /\n\nnonsense\n").empty());
}

TEST_F(MountTable, IsEmptyForAProcessThatHasGone) {
  EXPECT_TRUE(base::mounts("/proc/no-such-process").empty());
}

TEST(MountOptions, AreFoundAsWholeWords) {
  EXPECT_TRUE(base::hasOption("ro,nosuid,nodev", "nosuid"));
  EXPECT_TRUE(base::hasOption("ro", "ro"));
  EXPECT_FALSE(base::hasOption("errors=remount-ro,rw", "ro"));
  EXPECT_FALSE(base::hasOption("", "ro"));
}

}  // namespace
