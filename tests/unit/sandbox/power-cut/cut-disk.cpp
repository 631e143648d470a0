// SPDX-License-Identifier: Apache-2.0
#include "cut-disk.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>
#include <system_error>
#include <vector>

#include "file-descriptor.h"

namespace powercut {
namespace {
namespace fs = std::filesystem;

class CutDiskTest : public ::testing::Test {
 protected:
  CutDiskTest() {
    std::string name = ::testing::TempDir() + "cut-disk-XXXXXX";
    directory_ = mkdtemp(name.data()) != nullptr ? name : "";
    base_ = directory_ + "/base";
    scratch_ = directory_ + "/scratch";
    alarm(60);  // a fault may have it look for a loop device for ever
  }
  ~CutDiskTest() override { fs::remove_all(directory_); }

  static std::string contentOf(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
  }

  std::string directory_;
  std::string base_;
  std::string scratch_;
};

// As root, which loop devices need.
class CutDiskAsRoot : public CutDiskTest {
 protected:
  void SetUp() override {
    if (access("/dev/loop-control", R_OK | W_OK) != 0) {
      GTEST_SKIP() << "loop devices cannot be made here";
    }
  }

  // What the disk's file holds in this state. It is no file system, so nothing is mounted.
  std::string stateOf(CutDisk& disk, const Selection& selection) const {
    bool looked = false;
    const int error = disk.withState(selection, {"ext4", ""}, directory_, [&] { looked = true; });
    EXPECT_NE(error, 0);
    EXPECT_FALSE(looked);
    return contentOf(scratch_);
  }

  // The loop device on a file.
  static std::string deviceOf(const std::string& file) {
    for (const fs::directory_entry& device : fs::directory_iterator("/sys/block")) {
      std::ifstream backing(device.path() / "loop/backing_file");
      std::string path;
      if (std::getline(backing, path) && path == file) {
        return "/dev/" + device.path().filename().string();
      }
    }
    return "";
  }
};

TEST_F(CutDiskTest, SaysWhyItsFileCannotBeMade) {
  std::ofstream(base_) << std::string(kPieceSize, 'b');
  const std::string missing = directory_ + "/missing/scratch";

  try {
    const std::vector<Epoch> none;
    CutDisk(base_, none, missing);
    FAIL() << "it was made";
  } catch (const std::system_error& error) {
    EXPECT_EQ(error.code().value(), ENOENT);
    EXPECT_NE(std::string(error.what()).find(missing), std::string::npos) << error.what();
  }
}

TEST_F(CutDiskTest, RefusesADiskThatIsNotThereOrEmpty) {
  const std::vector<Epoch> none;
  EXPECT_THROW(CutDisk(base_, none, scratch_), std::runtime_error);

  std::ofstream(base_) << "";

  EXPECT_THROW(CutDisk(base_, none, scratch_), std::runtime_error);
  EXPECT_FALSE(fs::exists(scratch_));
}

TEST_F(CutDiskAsRoot, ALoopDeviceThatCannotBeSetUpIsAnError) {
  try {
    LoopDisk("/dev/null");
    FAIL() << "it was set up";
  } catch (const std::system_error& error) {
    EXPECT_EQ(error.code().value(), EINVAL);
    EXPECT_NE(std::string(error.what()).find("/dev/loop"), std::string::npos) << error.what();
  }
}

TEST_F(CutDiskAsRoot, HasWhatIsSettledAndTheSelectedPieces) {
  const std::string zeros(kPieceSize, '\0');
  std::string old = std::string(kPieceSize, 'b') + zeros + zeros + std::string(kPieceSize, 'c');
  std::ofstream(base_, std::ios::binary) << old;
  Epoch first;
  first.pieces = {{kPieceSize, std::string(kPieceSize, '1')}, {2 * kPieceSize, std::string(512, '2')}};
  Epoch second;
  second.settled = first.pieces;
  second.pieces = {{0, std::string(512, '3')}};
  const std::vector<Epoch> epochs = {first, second};
  CutDisk disk(base_, epochs, scratch_);

  disk.beginEpoch(0);
  const std::string withNothing = stateOf(disk, {false, false});
  const std::string withTheSecond = stateOf(disk, {false, true});
  disk.beginEpoch(1);
  const std::string settled = stateOf(disk, {false});
  const std::string last = stateOf(disk, {true});

  EXPECT_EQ(withNothing, old);
  EXPECT_EQ(withTheSecond, std::string(old).replace(2 * kPieceSize, 512, 512, '2'));
  old.replace(kPieceSize, kPieceSize, kPieceSize, '1').replace(2 * kPieceSize, 512, 512, '2');
  EXPECT_EQ(settled, old);
  EXPECT_EQ(last, std::string(old).replace(0, 512, 512, '3'));
}

// The kernel keeps what it has read of a device while somebody still uses it.
TEST_F(CutDiskAsRoot, ShowsNothingOfTheStateBefore) {
  std::ofstream(base_, std::ios::binary) << std::string(2 * kPieceSize, 'b');
  Epoch epoch;
  epoch.pieces = {{0, std::string(kPieceSize, '1')}};
  const std::vector<Epoch> epochs = {epoch};
  CutDisk disk(base_, epochs, scratch_);
  disk.beginEpoch(0);
  stateOf(disk, {true});
  const base::FileDescriptor device(open(deviceOf(scratch_).c_str(), O_RDONLY | O_CLOEXEC));
  ASSERT_TRUE(device);
  void* const used = mmap(nullptr, kPieceSize, PROT_READ, MAP_SHARED, device.get(), 0);
  ASSERT_NE(used, MAP_FAILED);
  EXPECT_EQ(*static_cast<volatile char*>(used), '1');

  stateOf(disk, {false});

  char now = '?';
  EXPECT_EQ(pread(device.get(), &now, 1, 0), 1);
  EXPECT_EQ(now, 'b');
  EXPECT_EQ(munmap(used, kPieceSize), 0);
}

TEST_F(CutDiskAsRoot, RefusesWhatIsWrittenBehindItsEnd) {
  std::ofstream(base_) << std::string(kPieceSize, 'b');
  Epoch epoch;
  epoch.settled = {{kPieceSize - 1, "xx"}};
  const std::vector<Epoch> epochs = {epoch};
  CutDisk disk(base_, epochs, scratch_);

  EXPECT_THROW(disk.beginEpoch(0), std::runtime_error);
}

}  // namespace
}  // namespace powercut
