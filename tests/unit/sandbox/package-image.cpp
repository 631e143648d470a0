// SPDX-License-Identifier: Apache-2.0
#include "package-image.h"

#include <sys/xattr.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <iterator>
#include <stdexcept>

#include "device-environment.h"
#include "firmware-image.h"
#include "image-information.h"

namespace fs = std::filesystem;

namespace {

class PackageImage : public DeviceTest {};

void write(const std::string& directory) {
  sandbox::writePackage(directory, "tunerempfw", "tunerfw", "2.5.0", 10000, 7);
}

TEST_F(PackageImage, HoldsTheFirmwareAndItsInformation) {
  write("/tmp/packages");

  ASSERT_EQ(
      std::system("unsquashfs -quiet -no-progress -dest /tmp/tree /tmp/packages/tunerempfw.img >/dev/null"),
      0);
  const auto content = readFile("/tmp/tree/tunerfw.bin");
  EXPECT_EQ(content, sandbox::imageContent("tunerfw", "2.5.0", 10000));
  EXPECT_NE(readFile("/tmp/tree/info.json").find(std::to_string(image::crcOf(content))), std::string::npos);
  const auto tree = fs::directory_iterator("/tmp/tree");
  EXPECT_EQ(std::distance(tree, fs::directory_iterator()), 2);
}

TEST_F(PackageImage, IsTheSameWhateverTheTimesAndModesOfTheFiles) {
  for (const std::string folder : {"/tmp/one", "/tmp/two"}) {
    writeFile(folder + "/tunerfw.bin", "firmware");
    writeFile(folder + "/info.json", "{}");
  }
  fs::last_write_time("/tmp/two/tunerfw.bin", fs::file_time_type::clock::now() - std::chrono::hours(48));
  fs::permissions("/tmp/two/info.json", fs::perms(0600));
  fs::permissions("/tmp/two", fs::perms(0700));

  sandbox::packFolder("/tmp/one", "/tmp/one.img");
  setenv("SOURCE_DATE_EPOCH", "5", 1);
  sandbox::packFolder("/tmp/two", "/tmp/two.img");
  unsetenv("SOURCE_DATE_EPOCH");

  EXPECT_TRUE(readFile("/tmp/one.img") == readFile("/tmp/two.img"));
}

// Attributes and owners are this machine's, and none of the set's.
TEST_F(PackageImage, IsTheSameWhoeverOwnsTheFiles) {
  for (const std::string folder : {"/tmp/one", "/tmp/two"}) {
    writeFile(folder + "/tunerfw.bin", "firmware");
  }
  if (chown("/tmp/two/tunerfw.bin", 65534, 65534) != 0) {
    GTEST_SKIP() << "a user namespace has only one user";
  }

  sandbox::packFolder("/tmp/one", "/tmp/one.img");
  sandbox::packFolder("/tmp/two", "/tmp/two.img");

  EXPECT_TRUE(readFile("/tmp/one.img") == readFile("/tmp/two.img"));
}

TEST_F(PackageImage, IsTheSameWhateverAttributesTheFilesHave) {
  for (const std::string folder : {"/tmp/one", "/tmp/two"}) {
    writeFile(folder + "/tunerfw.bin", "firmware");
  }
  if (setxattr("/tmp/two/tunerfw.bin", "user.note", "x", 1, 0) != 0 &&
      setxattr("/tmp/two/tunerfw.bin", "trusted.note", "x", 1, 0) != 0) {
    GTEST_SKIP() << "only root gives files in memory attributes on this kernel";
  }

  sandbox::packFolder("/tmp/one", "/tmp/one.img");
  sandbox::packFolder("/tmp/two", "/tmp/two.img");

  EXPECT_TRUE(readFile("/tmp/one.img") == readFile("/tmp/two.img"));
}

// In PATH before the real one; writes half of an image.
class BrokenMksquashfs : public PackageImage {
 protected:
  void install(const std::string& end) {
    writeFile("/tmp/bin/mksquashfs", "#!/bin/sh\necho half >\"$2\"\n" + end + "\n");
    fs::permissions("/tmp/bin/mksquashfs", fs::perms(0755));
    setenv("PATH", ("/tmp/bin:" + path_).c_str(), 1);
  }
  void TearDown() override { setenv("PATH", path_.c_str(), 1); }

 private:
  const std::string path_ = getenv("PATH");
};

TEST_F(BrokenMksquashfs, MakesNoImage) {
  writeFile("/tmp/folder/tunerfw.bin", "firmware");
  for (const char* end : {"exit 1", "kill -9 $$"}) {
    install(end);
    EXPECT_THROW(sandbox::packFolder("/tmp/folder", "/tmp/made.img"), std::runtime_error) << end;
    EXPECT_FALSE(exists("/tmp/made.img")) << end;
    EXPECT_FALSE(exists("/tmp/made.img.new")) << end;
  }
}

TEST_F(BrokenMksquashfs, LeavesTheOldImage) {
  writeFile("/tmp/folder/tunerfw.bin", "firmware");
  writeFile("/tmp/made.img", "old");
  install("exit 1");

  EXPECT_THROW(sandbox::packFolder("/tmp/folder", "/tmp/made.img"), std::runtime_error);

  EXPECT_EQ(readFile("/tmp/made.img"), "old");
}

TEST_F(PackageImage, LeavesNothingElseBehind) {
  write("/tmp/packages");
  write("/tmp/packages");

  const auto entries = fs::directory_iterator("/tmp/packages");
  EXPECT_EQ(std::distance(entries, fs::directory_iterator()), 1);
}

TEST_F(PackageImage, AFailureLeavesTheOldOne) {
  writeFile("/tmp/packages/x.img", "old");

  EXPECT_THROW(sandbox::packFolder("/tmp/missing", "/tmp/packages/x.img"), std::runtime_error);

  EXPECT_EQ(readFile("/tmp/packages/x.img"), "old");
  EXPECT_FALSE(exists("/tmp/packages/x.img.new"));
}

}  // namespace
