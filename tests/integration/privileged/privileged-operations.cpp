// SPDX-License-Identifier: Apache-2.0
// The privileged operations themselves, in the process that asks: root, and no
// service anywhere. Real images, real loop devices; inside of a user namespace
// the unpacked stand-in for them.
#include "privileged/privileged-operations.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <optional>

#include "device-environment.h"
#include "fw-update-mount-manager.h"
#include "package-images.h"
#include "privileged-calls.h"
#include "privileged/squashfs-unpack.h"
#include "swapper.h"
#include "temporary-mount.h"

namespace {

namespace fs = std::filesystem;
using ::testing::AnyOf;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::SizeIs;

class PrivilegedOperations : public DeviceTest {
 protected:
  // Asks for a mount and sees that nothing was mounted and no loop device stays.
  Answer mountInVain(const std::string& text) {
    const std::string before = readFile("/proc/self/mounts");
    const Answer answer = askMount(text);
    EXPECT_EQ(readFile("/proc/self/mounts"), before) << text;
    EXPECT_THAT(loopDevicesLeftOf(name_), IsEmpty()) << text;
    return answer;
  }

  const std::string name_ = uniquePackageName();
};

TEST_F(PrivilegedOperations, MountAnImageReadOnlyAndUnmountIt) {
  makeImage(name_, "the firmware");
  const std::string directory = makeDirectory(name_);

  ASSERT_EQ(askMount(mountText(name_)), kDone);

  EXPECT_EQ(readFile(directory + "/content"), "the firmware");
  const std::vector<MountEntry> mounts = mountsOn(directory);
  ASSERT_THAT(mounts, SizeIs(1));
  EXPECT_EQ(mounts[0].options.substr(0, 15), "ro,nosuid,nodev");
  EXPECT_EQ(mounts[0].type, fwplatform::isInUserNamespace() ? "tmpfs" : "squashfs");
  EXPECT_EQ(open((directory + "/new").c_str(), O_CREAT | O_WRONLY, 0600), -1);
  EXPECT_EQ(errno, EROFS);
  EXPECT_THAT(loopDevicesOf(name_), SizeIs(fwplatform::isInUserNamespace() ? 0 : 1));

  ASSERT_EQ(askUmount(directory), kDone);

  EXPECT_THAT(mountsOn(directory), IsEmpty());
  EXPECT_TRUE(fs::is_empty(directory));
  EXPECT_THAT(loopDevicesLeftOf(name_), IsEmpty()) << "loop devices detach themselves";
}

TEST_F(PrivilegedOperations, MountAnImageWithOwnersAndNodesOfAllKinds) {
  makeImage(name_, "owned by somebody", "-force-uid 1234 -force-gid 4321 -p '/null c 666 0 0 1 3'");
  const std::string directory = makeDirectory(name_);

  ASSERT_EQ(askMount(mountText(name_)), kDone);

  EXPECT_EQ(readFile(directory + "/content"), "owned by somebody");
  EXPECT_EQ(open((directory + "/null").c_str(), O_RDONLY | O_CLOEXEC), -1) << "nodev";
  EXPECT_EQ(askUmount(directory), kDone);
}

TEST_F(PrivilegedOperations, KeepNoexecWhenItIsAskedFor) {
  makeImage(name_, "x");
  const std::string directory = makeDirectory(name_);

  ASSERT_EQ(askMount("-o ro,loop,nodev,nosuid,noexec " + imagePath(name_) + " " + directory), kDone);

  ASSERT_THAT(mountsOn(directory), SizeIs(1));
  EXPECT_EQ(mountsOn(directory)[0].options.substr(0, 22), "ro,nosuid,nodev,noexec");
  EXPECT_EQ(askUmount(directory), kDone);
}

TEST_F(PrivilegedOperations, FailWithoutTheImageOrTheDirectory) {
  makeDirectory(name_);
  EXPECT_EQ(mountInVain(mountText(name_)), failedWith(ENOENT)) << "no image";

  makeImage(name_, "x");
  fs::remove(directoryPath(name_));
  EXPECT_EQ(mountInVain(mountText(name_)), failedWith(ENOENT)) << "no directory";

  writeFile(directoryPath(name_), "a file");
  EXPECT_EQ(mountInVain(mountText(name_)), failedWith(ENOTDIR));
}

TEST_F(PrivilegedOperations, FailWithWhatIsNoImage) {
  makeDirectory(name_);
  const std::string whole = readFile(makeImage(name_, std::string(300000, 'x') + std::string(300000, 'y')));

  for (const std::string& content : {std::string(), std::string("short"), std::string(100000, '\0'),
                                     std::string(4096, 'z'), whole.substr(0, 96), whole.substr(0, 200)}) {
    writeFile(imagePath(name_), content);

    const Answer answer = mountInVain(mountText(name_));

    EXPECT_EQ(answer.status, 0);
    EXPECT_THAT(answer.result, AnyOf(EINVAL, EIO)) << content.size() << " bytes";
  }
}

TEST_F(PrivilegedOperations, FailToMountTwiceOnADirectory) {
  makeImage(name_, "x");
  const std::string directory = makeDirectory(name_);
  ASSERT_EQ(askMount(mountText(name_)), kDone);

  const std::string second = uniquePackageName();
  makeImage(second, "y");

  EXPECT_EQ(askMount(mountText(name_)), failedWith(EBUSY));
  EXPECT_EQ(askMount("-o ro,loop,nodev,nosuid " + imagePath(second) + " " + directory), failedWith(EBUSY));

  EXPECT_THAT(mountsOn(directory), SizeIs(1));
  EXPECT_EQ(askUmount(directory), kDone);
  EXPECT_EQ(askMount(mountText(name_)), kDone) << "free again";
  EXPECT_EQ(askUmount(directory), kDone);
}

TEST_F(PrivilegedOperations, FailToUnmountWhatIsNotMountedOrIsInUse) {
  EXPECT_EQ(askUmount(directoryPath(name_)), failedWith(ENOENT));
  makeImage(name_, "x");
  const std::string directory = makeDirectory(name_);
  EXPECT_EQ(askUmount(directory), failedWith(EINVAL));
  ASSERT_EQ(askMount(mountText(name_)), kDone);
  const int user = open((directory + "/content").c_str(), O_RDONLY | O_CLOEXEC);
  ASSERT_GE(user, 0);

  EXPECT_EQ(askUmount(directory), failedWith(EBUSY));

  EXPECT_EQ(readFile(directory + "/content"), "x") << "still there";
  close(user);
  EXPECT_EQ(askUmount(directory), kDone);
}

TEST_F(PrivilegedOperations, RefuseLinks) {
  makeImage(name_, "x");
  makeDirectory(name_);
  const std::string other = uniquePackageName();

  fs::create_symlink(imagePath(name_), imagePath(other));
  EXPECT_EQ(mountInVain("-o ro,loop,nodev,nosuid " + imagePath(other) + " " + directoryPath(name_)),
            kRefused);

  fs::create_directory_symlink(directoryPath(name_), directoryPath(other));
  EXPECT_EQ(mountInVain("-o ro,loop,nodev,nosuid " + imagePath(name_) + " " + directoryPath(other)),
            kRefused);
}

TEST_F(PrivilegedOperations, RefuseALinkHigherUp) {
  makeImage(name_, "x");
  fs::rename(kEmps, kPackages + "/elsewhere");
  fs::create_directory_symlink(kPackages + "/elsewhere", kEmps);
  fs::create_directory(kPackages + "/elsewhere/" + name_);

  EXPECT_EQ(mountInVain(mountText(name_)), kRefused);
  EXPECT_EQ(askUmount(directoryPath(name_)), kRefused);
}

TEST_F(PrivilegedOperations, DoNotUnmountThroughALink) {
  makeImage(name_, "x");
  const std::string directory = makeDirectory(name_);
  ASSERT_EQ(askMount(mountText(name_)), kDone);
  const std::string other = uniquePackageName();
  fs::create_directory_symlink(directory, directoryPath(other));

  EXPECT_EQ(askUmount(directoryPath(other)), failedWith(EINVAL));

  EXPECT_THAT(mountsOn(directory), SizeIs(1));
  EXPECT_EQ(askUmount(directory), kDone);
}

TEST_F(PrivilegedOperations, RefuseImagesThatAreNoRegularFiles) {
  makeDirectory(name_);

  ASSERT_EQ(mkfifo(imagePath(name_).c_str(), 0600), 0);
  EXPECT_EQ(mountInVain(mountText(name_)), kRefused) << "and does not wait for the pipe's other end";

  fs::remove(imagePath(name_));
  fs::create_directory(imagePath(name_));
  EXPECT_EQ(mountInVain(mountText(name_)), kRefused);
}

TEST_F(PrivilegedOperations, RefuseTextsThatAreNotOfTheForm) {
  makeImage(name_, "x");
  makeDirectory(name_);

  EXPECT_EQ(mountInVain("-o rw,loop,nodev,nosuid " + imagePath(name_) + " " + directoryPath(name_)),
            kRefused);
  EXPECT_EQ(mountInVain(mountText(name_) + " "), kRefused);
  EXPECT_EQ(mountInVain("-o ro,loop,nodev,nosuid " + kEmps + "/../" + name_ + ".img " + directoryPath(name_)),
            kRefused);
  EXPECT_EQ(askMknod("-m 0660 -Z * /dev/loop250  b 7 250"), kRefused);
  EXPECT_EQ(askMknod("-m 0660 -Z * /dev/sda  b 8 0"), kRefused);
  EXPECT_EQ(askUmount("/opt/media"), kRefused);
  EXPECT_EQ(askUmount(directoryPath(name_) + "/"), kRefused);
}

TEST_F(PrivilegedOperations, ReadNoTextPastItsBuffer) {
  const std::string text = mountText(name_);
  int result = kUntouched;

  // No terminator within the buffer: the bytes beyond it belong to others.
  EXPECT_EQ(PS_Mount(text.data(), static_cast<int>(text.size()), 0, &result), -EPERM);
  const std::string tooLong(5000, 'a');
  EXPECT_EQ(PS_Mount(tooLong.c_str(), 5001, 0, &result), -EPERM);
  EXPECT_EQ(PS_Mknod(tooLong.c_str(), 5001, 0, &result), -EPERM);
  EXPECT_EQ(PS_Umount(tooLong.c_str(), 1025, 0, &result), -ENAMETOOLONG);
  EXPECT_EQ(PS_Umount(tooLong.c_str(), 1024, 0, &result), -EPERM);
  EXPECT_EQ(result, kUntouched);
}

TEST_F(PrivilegedOperations, RefuseArgumentsThatAreMissing) {
  int result = kUntouched;

  EXPECT_EQ(PS_Mount(nullptr, 1024, 0, &result), -EINVAL);
  EXPECT_EQ(PS_Mount("x", 0, 0, &result), -EINVAL);
  EXPECT_EQ(PS_Mknod("x", -1, 0, &result), -EINVAL);
  EXPECT_EQ(PS_Mknod(nullptr, 1024, 0, &result), -EINVAL);
  EXPECT_EQ(PS_Umount(nullptr, 5, 0, &result), -EINVAL);
  EXPECT_EQ(PS_Umount("", 0, 0, &result), -EINVAL);
  EXPECT_EQ(PS_Umount("x", 1, 0, nullptr), -EINVAL);
  EXPECT_EQ(result, kUntouched);
}

TEST_F(PrivilegedOperations, MountNothingButTheImageThatWasChecked) {
  constexpr int kEnough = 5;
  const std::string other = uniquePackageName();
  const std::string forbidden = makeImage(other, "forbidden");
  const std::string directory = makeDirectory(name_);
  const std::string image = makeImage(name_, "allowed");
  fs::create_symlink(forbidden, kPackages + "/link");
  const Swapper swapper({{image, kPackages + "/link"}});

  int mounted = 0;
  int refused = 0;
  for (int i = 0; i < 20000 && (mounted < kEnough || refused < kEnough); ++i) {
    const Answer answer = askMount(mountText(name_));
    if (answer == kDone) {
      ++mounted;
      ASSERT_EQ(readFile(directory + "/content"), "allowed");
      ASSERT_EQ(askUmount(directory), kDone);
    } else {
      ASSERT_EQ(answer, kRefused) << "the link";
      ++refused;
    }
  }

  EXPECT_GE(mounted, kEnough);
  EXPECT_GE(refused, kEnough) << "the link was never there, so this showed nothing";
  EXPECT_THAT(loopDevicesLeftOf(name_), IsEmpty());
  EXPECT_THAT(loopDevicesLeftOf(other), IsEmpty());
}

// Where the kernel could find out what to mount by itself: with any other type it would.
TEST_F(PrivilegedOperations, MountNoOtherFileSystem) {
  const std::string image = imagePath(name_);
  const std::string directory = makeDirectory(name_);
  ASSERT_EQ(std::system(("/sbin/mke2fs -q -F -t ext4 -O ^has_journal " + image + " 1024").c_str()), 0);

  EXPECT_EQ(mountInVain(mountText(name_)), failedWith(EINVAL));
}

TEST_F(PrivilegedOperations, LimitTheMemoryOfAnUnpackedImage) {
  if (!fwplatform::isInUserNamespace()) {
    GTEST_SKIP() << "images are unpacked in a user namespace alone";
  }
  makeImage(name_, "x");
  const std::string directory = makeDirectory(name_);

  ASSERT_EQ(askMount(mountText(name_)), kDone);

  ASSERT_THAT(mountsOn(directory), SizeIs(1));
  EXPECT_THAT(mountsOn(directory)[0].options, HasSubstr("size=1048576k,nr_inodes=65536"));
  EXPECT_EQ(askUmount(directory), kDone);
}

TEST_F(PrivilegedOperations, MakeNodesWhereTheKernelLetsThem) {
  const TemporaryMount dev = TemporaryMount::memory("/dev");

  EXPECT_EQ(askMknod("-m 0660 -Z * /dev/loop7  b 7 7"),
            fwplatform::isInUserNamespace() ? failedWith(EPERM) : kDone);
}

class LoopNodes : public PrivilegedOperations {
 protected:
  void SetUp() override {
    PrivilegedOperations::SetUp();
    if (fwplatform::isInUserNamespace()) {
      GTEST_SKIP() << "device nodes can't be made in a user namespace";
    }
    dev_.emplace(TemporaryMount::memory("/dev"));
    ASSERT_EQ(::mknod("/dev/loop-control", S_IFCHR | 0600, makedev(10, 237)), 0);
    ASSERT_EQ(::mknod("/dev/null", S_IFCHR | 0666, makedev(1, 3)), 0);
  }

 private:
  std::optional<TemporaryMount> dev_;
};

TEST_F(LoopNodes, AreMadeWithTheirModeWhateverTheMask) {
  const mode_t previous = umask(0077);
  const Answer answer = askMknod("-m 0660 -Z * /dev/loop200  b 7 200");
  umask(previous);

  ASSERT_EQ(answer, kDone);
  struct stat status = {};
  ASSERT_EQ(lstat("/dev/loop200", &status), 0);
  EXPECT_EQ(status.st_mode, static_cast<mode_t>(S_IFBLK | 0660));
  EXPECT_EQ(status.st_rdev, makedev(7, 200));
}

TEST_F(LoopNodes, AreNotMadeOverWhatIsThere) {
  ASSERT_EQ(askMknod("-m 0660 -Z * /dev/loop7  b 7 7"), kDone);
  fs::create_symlink("/opt/media/target", "/dev/loop8");
  writeFile("/dev/loop9", "a file");

  EXPECT_EQ(askMknod("-m 0660 -Z * /dev/loop7  b 7 7"), failedWith(EEXIST));
  EXPECT_EQ(askMknod("-m 0660 -Z * /dev/loop8  b 7 8"), failedWith(EEXIST));
  EXPECT_EQ(askMknod("-m 0660 -Z * /dev/loop9  b 7 9"), failedWith(EEXIST));
  EXPECT_FALSE(exists("/opt/media/target"));
  EXPECT_EQ(readFile("/dev/loop9"), "a file");
}

// The library's own answer to a device whose loop nodes are all in use, with the
// real kernel: no node is there at all, so all of none are in use.
TEST_F(LoopNodes, AreMadeByTheLibraryUntilAnImageIsMounted) {
  makeImage(name_, "mounted after all");
  const std::string directory = directoryPath(name_);
  ASSERT_EQ(countPresentLoopDevices(), 0);
  ASSERT_EQ(countMountedLoopDevices(), 0);

  EXPECT_EQ(FWMountManager::getInstance()->Mount(imagePath(name_), directory), 0);

  EXPECT_EQ(readFile(directory + "/content"), "mounted after all");
  EXPECT_EQ(countMountedLoopDevices(), 1);
  EXPECT_GE(countPresentLoopDevices(), 1);
  EXPECT_EQ(FWMountManager::getInstance()->UMount(directory), 0);
  EXPECT_THAT(loopDevicesLeftOf(name_), IsEmpty());
}

// The first image takes a node; with all nodes in use again, the second one gets
// the next.
TEST_F(LoopNodes, AreMadeForASecondImageToo) {
  const std::string second = uniquePackageName();
  makeImage(name_, "first");
  makeImage(second, "second");
  FWMountManager* manager = FWMountManager::getInstance();
  ASSERT_EQ(manager->Mount(imagePath(name_), directoryPath(name_)), 0);
  // Nodes that were tried and are free would be no reason to make more.
  for (const auto& entry : fs::directory_iterator("/dev")) {
    const std::string node = entry.path();
    if (node.rfind("/dev/loop", 0) == 0 && node != "/dev/loop-control" &&
        node != mountsOn(directoryPath(name_)).at(0).source) {
      fs::remove(entry.path());
    }
  }
  ASSERT_EQ(countPresentLoopDevices(), countMountedLoopDevices());

  EXPECT_EQ(manager->Mount(imagePath(second), directoryPath(second)), 0);

  EXPECT_EQ(readFile(directoryPath(second) + "/content"), "second");
  EXPECT_EQ(manager->UMount(directoryPath(second)), 0);
  EXPECT_EQ(manager->UMount(directoryPath(name_)), 0);
}

}  // namespace
