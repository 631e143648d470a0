// SPDX-License-Identifier: Apache-2.0
// The stand-in for loop mounts: limits of what an image can make it do. In place of the
// unpacker stand programs that tell what they find, or hang.
#include "privileged/squashfs-unpack.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/statfs.h>
#include <sys/statvfs.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <random>
#include <string>

#include "device-environment.h"
#include "limited-resource.h"
#include "package-images.h"
#include "temporary-mount.h"

namespace {

namespace fs = std::filesystem;
using base::FileDescriptor;
using fwplatform::UnpackLimits;
using ::testing::HasSubstr;
using ::testing::Not;

class SquashfsUnpack : public DeviceTest {
 protected:
  void SetUp() override {
    DeviceTest::SetUp();
    makeImage(name_, "the content");
  }

  int unpack(const UnpackLimits& limits = {}, unsigned attributes = MOUNT_ATTR_RDONLY) {
    const FileDescriptor image(open(imagePath(name_).c_str(), O_RDONLY | O_CLOEXEC));
    return fwplatform::unpackOnTmpfs(image, attributes, limits, tree_, reason_);
  }

  // Lets a shell script be what unpacks. It gets the tree as its working directory.
  TemporaryMount unpackWith(const std::string& script) {
    writeFile("/tmp/unpacker", "#!/bin/sh\ncd /proc/self/fd/4\n" + script);
    fs::permissions("/tmp/unpacker", fs::perms::all);
    return TemporaryMount::bind("/tmp/unpacker", "/usr/bin/unsquashfs");
  }

  std::string unpacked(const std::string& name) const {
    return readFile("/proc/self/fd/" + std::to_string(tree_.get()) + "/" + name);
  }

  static std::string noise(std::size_t size) {
    std::mt19937 random(1);
    std::string noise(size, '\0');
    for (char& byte : noise) {
      byte = static_cast<char>(random());
    }
    return noise;
  }

  const std::string name_ = uniquePackageName();
  FileDescriptor tree_;
  std::string reason_;
};

TEST_F(SquashfsUnpack, GivesAReadOnlyTreeThatIsMountedNowhere) {
  const std::string mounts = readFile("/proc/self/mounts");

  ASSERT_EQ(unpack({}, MOUNT_ATTR_RDONLY | MOUNT_ATTR_NODEV | MOUNT_ATTR_NOSUID), 0) << reason_;

  EXPECT_EQ(unpacked("content"), "the content");
  EXPECT_EQ(openat(tree_.get(), "new", O_CREAT | O_WRONLY | O_CLOEXEC, 0600), -1);
  EXPECT_EQ(errno, EROFS);
  struct statfs status = {};
  ASSERT_EQ(fstatfs(tree_.get(), &status), 0);
  constexpr auto kFlags = ST_RDONLY | ST_NODEV | ST_NOSUID;
  EXPECT_EQ(static_cast<unsigned>(status.f_flags) & (kFlags | ST_NOEXEC), static_cast<unsigned>(kFlags));
  EXPECT_EQ(readFile("/proc/self/mounts"), mounts);
  EXPECT_NE(fcntl(tree_.get(), F_GETFD) & FD_CLOEXEC, 0);
}

TEST_F(SquashfsUnpack, KeepsTheWholeDeviceFromFillingUp) {
  fs::remove(imagePath(name_));
  makeImage(name_, noise(3U << 20U));
  UnpackLimits limits;
  limits.size = "2m";

  EXPECT_EQ(unpack(limits), ENOSPC);

  EXPECT_EQ(reason_, "the image is too big");
  EXPECT_FALSE(tree_);
  limits.size = "4m";
  EXPECT_EQ(unpack(limits), 0) << reason_;
}

TEST_F(SquashfsUnpack, LimitsTheNumberOfFilesToo) {
  fs::remove(imagePath(name_));
  makeImage(name_, "x", "-p '/one d 755 0 0' -p '/two d 755 0 0' -p '/three d 755 0 0'");
  UnpackLimits limits;
  limits.files = "4";

  EXPECT_EQ(unpack(limits), ENOSPC);

  EXPECT_EQ(reason_, "the image is too big");
}

TEST_F(SquashfsUnpack, SaysThatThereIsNoPlaceForTheTree) {
  UnpackLimits limits;
  limits.size = "no size";

  EXPECT_EQ(unpack(limits), EINVAL);

  EXPECT_EQ(reason_, "making a tmpfs");
  EXPECT_FALSE(tree_);
}

TEST_F(SquashfsUnpack, HasALimitUnlessItIsTold) {
  ASSERT_EQ(unpack(), 0) << reason_;

  struct statfs status = {};
  ASSERT_EQ(fstatfs(tree_.get(), &status), 0);
  EXPECT_EQ(status.f_blocks * static_cast<unsigned long long>(status.f_bsize), 1ULL << 30U);
  EXPECT_EQ(status.f_files, 65536U);
}

TEST_F(SquashfsUnpack, EndsAnUnpackerThatHangs) {
  const TemporaryMount unpacker = unpackWith("exec sleep 30");
  UnpackLimits limits;
  limits.milliseconds = 100;

  EXPECT_EQ(unpack(limits), ETIMEDOUT);

  EXPECT_EQ(reason_, "unsquashfs took too long or was ended");
  EXPECT_FALSE(tree_);
}

TEST_F(SquashfsUnpack, GivesTheUnpackerTimeUnlessItIsTold) {
  EXPECT_EQ(UnpackLimits().milliseconds, 25000);
}

TEST_F(SquashfsUnpack, GivesTheUnpackerNoRightsOutsideOfItsOwnNamespace) {
  const TemporaryMount unpacker = unpackWith("readlink /proc/self/ns/user >namespace");

  ASSERT_EQ(unpack(), 0) << reason_;

  EXPECT_THAT(unpacked("namespace"), HasSubstr("user:["));
  EXPECT_THAT(unpacked("namespace"), Not(HasSubstr(fs::read_symlink("/proc/self/ns/user").string())));
}

TEST_F(SquashfsUnpack, GivesTheUnpackerNoOtherDescriptorsAndNoEnvironment) {
  const int left = fcntl(open("/dev/null", O_RDONLY | O_CLOEXEC), F_DUPFD, 100);
  ASSERT_GE(left, 100);
  // A shell without variables of its own invention, and without its script's descriptor.
  const TemporaryMount unpacker = unpackWith(
      "ls /proc/self/fd >descriptors\nreadlink /proc/self/fd/* >links\n"
      "cat /proc/self/environ >environment\nreadlink /proc/$$/fd/0 >input");

  ASSERT_EQ(unpack(), 0) << reason_;

  EXPECT_THAT(unpacked("descriptors"), HasSubstr("\n3\n4\n"));
  EXPECT_THAT(unpacked("descriptors"), Not(HasSubstr(std::to_string(left))));
  EXPECT_THAT(unpacked("links"), HasSubstr(name_ + ".img"));
  EXPECT_THAT(unpacked("links"), HasSubstr("memfd:unsquashfs"));
  EXPECT_THAT(unpacked("input"), HasSubstr("memfd:unsquashfs")) << "nothing to read, and not the service's";
  EXPECT_THAT(unpacked("environment"), HasSubstr("LC_ALL=C"));
  EXPECT_THAT(unpacked("environment"), Not(HasSubstr("HOME=")));
  close(left);
}

TEST_F(SquashfsUnpack, TakesFilesWithoutTheirOwnersAsWhole) {
  const TemporaryMount unpacker = unpackWith("echo all >content; exit 2");

  ASSERT_EQ(unpack(), 0) << reason_;

  EXPECT_EQ(unpacked("content"), "all\n");
}

TEST_F(SquashfsUnpack, GivesTheLastLineOfTheUnpackerForItsFailure) {
  const TemporaryMount unpacker = unpackWith("echo first; echo 'the reason' >&2; echo; exit 1");

  EXPECT_EQ(unpack(), EINVAL);

  EXPECT_EQ(reason_, "the reason");
  EXPECT_FALSE(tree_);
}

TEST_F(SquashfsUnpack, GivesTheOnlyLineToo) {
  const TemporaryMount unpacker = unpackWith("printf 'alone'; exit 1");

  EXPECT_EQ(unpack(), EINVAL);

  EXPECT_EQ(reason_, "alone");
}

TEST_F(SquashfsUnpack, GivesTheEndOfALongStory) {
  const TemporaryMount unpacker =
      unpackWith("i=0; while [ $i -lt 500 ]; do echo line $i; i=$((i+1)); done; echo the end; exit 1");

  EXPECT_EQ(unpack(), EINVAL);

  EXPECT_EQ(reason_, "the end");
}

TEST_F(SquashfsUnpack, SaysWhenItsUnpackerCrashes) {
  const TemporaryMount unpacker = unpackWith("kill -SEGV $$");

  EXPECT_EQ(unpack(), ETIMEDOUT);

  EXPECT_EQ(reason_, "unsquashfs took too long or was ended");
}

TEST_F(SquashfsUnpack, SaysWhenThereIsNoUnpacker) {
  writeFile("/tmp/no-program", "x");
  const TemporaryMount unpacker = TemporaryMount::bind("/tmp/no-program", "/usr/bin/unsquashfs");

  EXPECT_EQ(unpack(), ENOSYS);

  EXPECT_EQ(reason_, "/usr/bin/unsquashfs can't be run");
}

TEST_F(SquashfsUnpack, SaysWhenItsOwnDescriptorsRunOut) {
  // The three that the unpacker gets are above 9.
  for (const int last : {11, 12}) {
    const auto limit = LimitedResource::descriptorsBelow(static_cast<rlim_t>(last));

    EXPECT_EQ(unpack(), EMFILE) << last;

    EXPECT_EQ(reason_, "running unsquashfs");
    EXPECT_FALSE(tree_);
  }
}

TEST_F(SquashfsUnpack, LeavesNoProcessBehind) {
  ASSERT_EQ(unpack(), 0) << reason_;

  EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);
  EXPECT_EQ(errno, ECHILD);
}

}  // namespace
