// SPDX-License-Identifier: Apache-2.0
#include "recorded-disk.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "child-process.h"
#include "disk-log.h"
#include "file-descriptor.h"
#include "limited-resource.h"

namespace powercut {
namespace {
namespace fs = std::filesystem;

constexpr off_t kSize = off_t{128} * 1024;

int readyEnd = -1;  // of the recorder

void sayReady() {
  static_cast<void>(write(readyEnd, "r", 1));
}

// As root and with FUSE, in a mount namespace of its own.
class RecordedDisk : public ::testing::Test {
 protected:
  void SetUp() override {
    if (geteuid() != 0 || access("/dev/fuse", R_OK | W_OK) != 0) {
      GTEST_SKIP() << "disks cannot be recorded here";
    }
    std::string name = ::testing::TempDir() + "recorded-disk-XXXXXX";
    ASSERT_NE(mkdtemp(name.data()), nullptr);
    directory_ = name;
    fs::create_directory(shown());
    std::ofstream(image()) << "";
    fs::resize_file(image(), kSize);
    ASSERT_EQ(unshare(CLONE_NEWNS), 0);
    ASSERT_EQ(mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr), 0);
    alarm(60);  // what nobody serves is waited for
  }

  void TearDown() override {
    if (!directory_.empty()) {
      umount2(shown().c_str(), MNT_DETACH);
      fs::remove_all(directory_);
    }
  }

  // Returns once the disk can be used, or when the recorder has ended. The image takes no
  // bytes from there on.
  void record(rlim_t full = kSize) {
    base::Pipe ready = base::makePipe();
    recorder_ = std::make_unique<ChildProcess>([&] {
      readyEnd = ready.writeEnd.get();
      const LimitedResource limit = LimitedResource::fileSize(full);
      return recordDisk(image(), log(), shown(), sayReady);
    });
    ready.writeEnd.reset();
    char byte = 0;
    ASSERT_EQ(read(ready.readEnd.get(), &byte, 1), 1);
  }

  base::FileDescriptor opened(const std::string& name) const {
    return base::FileDescriptor(open((shown() + name).c_str(), O_RDWR | O_CLOEXEC));
  }

  // The exit code.
  int end() {
    EXPECT_EQ(umount2(shown().c_str(), 0), 0);
    return recorder_->wait();
  }

  std::string image() const { return directory_ + "/image"; }
  std::string log() const { return directory_ + "/log"; }
  std::string shown() const { return directory_ + "/shown"; }

 private:
  std::string directory_;
  std::unique_ptr<ChildProcess> recorder_;
};

TEST_F(RecordedDisk, RecordsWhatIsWrittenAndFlushedAndMarked) {
  const std::string written(1024, 'a');
  std::string back(written.size(), '?');
  ASSERT_NO_FATAL_FAILURE(record());

  {
    const base::FileDescriptor disk = opened("/disk");
    EXPECT_EQ(pwrite(disk.get(), written.data(), written.size(), 4096), 1024);
    EXPECT_EQ(fsync(disk.get()), 0);
    EXPECT_EQ(write(opened("/mark").get(), "done", 4), 4);
    EXPECT_EQ(pread(disk.get(), back.data(), back.size(), 4096), 1024);
  }

  EXPECT_EQ(end(), 0);
  EXPECT_EQ(back, written);
  const std::vector<DiskLogEntry> entries = readDiskLog(log());
  ASSERT_EQ(entries.size(), 3U);
  EXPECT_EQ(entries[0].offset, 4096U);
  EXPECT_EQ(entries[0].data, written);
  EXPECT_TRUE(entries[1].has(DiskLogEntry::Flush));
  EXPECT_TRUE(entries[2].has(DiskLogEntry::Mark));
  EXPECT_EQ(entries[2].data, "done");
}

TEST_F(RecordedDisk, DoesNotRecordWhatTheImageDidNotTake) {
  constexpr rlim_t kFull = 64 * 1024;
  char byte = 'x';
  ASSERT_NO_FATAL_FAILURE(record(kFull));

  {
    const base::FileDescriptor disk = opened("/disk");
    const std::string sector(512, 's');
    errno = 0;
    EXPECT_EQ(pwrite(disk.get(), sector.data(), sector.size(), kFull), -1);
    EXPECT_EQ(errno, EFBIG);
    EXPECT_EQ(pread(disk.get(), &byte, 1, kSize), 0);  // its end is no error
    EXPECT_EQ(pread(disk.get(), &byte, 1, kFull), 1);
    EXPECT_EQ(byte, '\0');
  }

  EXPECT_EQ(end(), 0);
  EXPECT_TRUE(readDiskLog(log()).empty());
}

TEST_F(RecordedDisk, IsAnErrorWhereItCannotBeShown) {
  EXPECT_EQ(runInChild([&] { return recordDisk(image(), log(), shown() + "/missing", sayReady); }), 1);
}

}  // namespace
}  // namespace powercut
