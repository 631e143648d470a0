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
  Answer MountInVain(const std::string& text) {
    const std::string before = readFile("/proc/self/mounts");
    const Answer answer = Mount(text);
    EXPECT_EQ(readFile("/proc/self/mounts"), before) << text;
    EXPECT_THAT(LoopDevicesLeftOf(name_), IsEmpty()) << text;
    return answer;
  }

  const std::string name_ = UniquePackageName();
};

TEST_F(PrivilegedOperations, MountAnImageReadOnlyAndUnmountIt) {
  MakeImage(name_, "the firmware");
  const std::string directory = MakeDirectory(name_);

  ASSERT_EQ(Mount(MountText(name_)), kDone);

  EXPECT_EQ(readFile(directory + "/content"), "the firmware");
  const std::vector<MountEntry> mounts = MountsOn(directory);
  ASSERT_THAT(mounts, SizeIs(1));
  EXPECT_EQ(mounts[0].options.substr(0, 15), "ro,nosuid,nodev");
  EXPECT_EQ(mounts[0].type, fwplatform::IsInUserNamespace() ? "tmpfs" : "squashfs");
  EXPECT_EQ(open((directory + "/new").c_str(), O_CREAT | O_WRONLY, 0600), -1);
  EXPECT_EQ(errno, EROFS);
  EXPECT_THAT(LoopDevicesOf(name_), SizeIs(fwplatform::IsInUserNamespace() ? 0 : 1));

  ASSERT_EQ(Umount(directory), kDone);

  EXPECT_THAT(MountsOn(directory), IsEmpty());
  EXPECT_TRUE(fs::is_empty(directory));
  EXPECT_THAT(LoopDevicesLeftOf(name_), IsEmpty()) << "loop devices detach themselves";
}

TEST_F(PrivilegedOperations, MountAnImageWithOwnersAndNodesOfAllKinds) {
  MakeImage(name_, "owned by somebody", "-force-uid 1234 -force-gid 4321 -p '/null c 666 0 0 1 3'");
  const std::string directory = MakeDirectory(name_);

  ASSERT_EQ(Mount(MountText(name_)), kDone);

  EXPECT_EQ(readFile(directory + "/content"), "owned by somebody");
  EXPECT_EQ(open((directory + "/null").c_str(), O_RDONLY | O_CLOEXEC), -1) << "nodev";
  EXPECT_EQ(Umount(directory), kDone);
}

TEST_F(PrivilegedOperations, KeepNoexecWhenItIsAskedFor) {
  MakeImage(name_, "x");
  const std::string directory = MakeDirectory(name_);

  ASSERT_EQ(Mount("-o ro,loop,nodev,nosuid,noexec " + ImagePath(name_) + " " + directory), kDone);

  ASSERT_THAT(MountsOn(directory), SizeIs(1));
  EXPECT_EQ(MountsOn(directory)[0].options.substr(0, 22), "ro,nosuid,nodev,noexec");
  EXPECT_EQ(Umount(directory), kDone);
}

TEST_F(PrivilegedOperations, FailWithoutTheImageOrTheDirectory) {
  MakeDirectory(name_);
  EXPECT_EQ(MountInVain(MountText(name_)), FailedWith(ENOENT)) << "no image";

  MakeImage(name_, "x");
  fs::remove(DirectoryPath(name_));
  EXPECT_EQ(MountInVain(MountText(name_)), FailedWith(ENOENT)) << "no directory";

  writeFile(DirectoryPath(name_), "a file");
  EXPECT_EQ(MountInVain(MountText(name_)), FailedWith(ENOTDIR));
}

TEST_F(PrivilegedOperations, FailWithWhatIsNoImage) {
  MakeDirectory(name_);
  const std::string whole = readFile(MakeImage(name_, std::string(300000, 'x') + std::string(300000, 'y')));

  for (const std::string& content : {std::string(), std::string("short"), std::string(100000, '\0'),
                                     std::string(4096, 'z'), whole.substr(0, 96), whole.substr(0, 200)}) {
    writeFile(ImagePath(name_), content);

    const Answer answer = MountInVain(MountText(name_));

    EXPECT_EQ(answer.status, 0);
    EXPECT_THAT(answer.result, AnyOf(EINVAL, EIO)) << content.size() << " bytes";
  }
}

TEST_F(PrivilegedOperations, FailToMountTwiceOnADirectory) {
  MakeImage(name_, "x");
  const std::string directory = MakeDirectory(name_);
  ASSERT_EQ(Mount(MountText(name_)), kDone);

  const std::string second = UniquePackageName();
  MakeImage(second, "y");

  EXPECT_EQ(Mount(MountText(name_)), FailedWith(EBUSY));
  EXPECT_EQ(Mount("-o ro,loop,nodev,nosuid " + ImagePath(second) + " " + directory), FailedWith(EBUSY));

  EXPECT_THAT(MountsOn(directory), SizeIs(1));
  EXPECT_EQ(Umount(directory), kDone);
  EXPECT_EQ(Mount(MountText(name_)), kDone) << "free again";
  EXPECT_EQ(Umount(directory), kDone);
}

TEST_F(PrivilegedOperations, FailToUnmountWhatIsNotMountedOrIsInUse) {
  EXPECT_EQ(Umount(DirectoryPath(name_)), FailedWith(ENOENT));
  MakeImage(name_, "x");
  const std::string directory = MakeDirectory(name_);
  EXPECT_EQ(Umount(directory), FailedWith(EINVAL));
  ASSERT_EQ(Mount(MountText(name_)), kDone);
  const int user = open((directory + "/content").c_str(), O_RDONLY | O_CLOEXEC);
  ASSERT_GE(user, 0);

  EXPECT_EQ(Umount(directory), FailedWith(EBUSY));

  EXPECT_EQ(readFile(directory + "/content"), "x") << "still there";
  close(user);
  EXPECT_EQ(Umount(directory), kDone);
}

TEST_F(PrivilegedOperations, RefuseLinks) {
  MakeImage(name_, "x");
  MakeDirectory(name_);
  const std::string other = UniquePackageName();

  fs::create_symlink(ImagePath(name_), ImagePath(other));
  EXPECT_EQ(MountInVain("-o ro,loop,nodev,nosuid " + ImagePath(other) + " " + DirectoryPath(name_)),
            kRefused);

  fs::create_directory_symlink(DirectoryPath(name_), DirectoryPath(other));
  EXPECT_EQ(MountInVain("-o ro,loop,nodev,nosuid " + ImagePath(name_) + " " + DirectoryPath(other)),
            kRefused);
}

TEST_F(PrivilegedOperations, RefuseALinkHigherUp) {
  MakeImage(name_, "x");
  fs::rename(kEmps, kPackages + "/elsewhere");
  fs::create_directory_symlink(kPackages + "/elsewhere", kEmps);
  fs::create_directory(kPackages + "/elsewhere/" + name_);

  EXPECT_EQ(MountInVain(MountText(name_)), kRefused);
  EXPECT_EQ(Umount(DirectoryPath(name_)), kRefused);
}

TEST_F(PrivilegedOperations, DoNotUnmountThroughALink) {
  MakeImage(name_, "x");
  const std::string directory = MakeDirectory(name_);
  ASSERT_EQ(Mount(MountText(name_)), kDone);
  const std::string other = UniquePackageName();
  fs::create_directory_symlink(directory, DirectoryPath(other));

  EXPECT_EQ(Umount(DirectoryPath(other)), FailedWith(EINVAL));

  EXPECT_THAT(MountsOn(directory), SizeIs(1));
  EXPECT_EQ(Umount(directory), kDone);
}

TEST_F(PrivilegedOperations, RefuseImagesThatAreNoRegularFiles) {
  MakeDirectory(name_);

  ASSERT_EQ(mkfifo(ImagePath(name_).c_str(), 0600), 0);
  EXPECT_EQ(MountInVain(MountText(name_)), kRefused) << "and does not wait for the pipe's other end";

  fs::remove(ImagePath(name_));
  fs::create_directory(ImagePath(name_));
  EXPECT_EQ(MountInVain(MountText(name_)), kRefused);
}

TEST_F(PrivilegedOperations, RefuseTextsThatAreNotOfTheForm) {
  MakeImage(name_, "x");
  MakeDirectory(name_);

  EXPECT_EQ(MountInVain("-o rw,loop,nodev,nosuid " + ImagePath(name_) + " " + DirectoryPath(name_)),
            kRefused);
  EXPECT_EQ(MountInVain(MountText(name_) + " "), kRefused);
  EXPECT_EQ(MountInVain("-o ro,loop,nodev,nosuid " + kEmps + "/../" + name_ + ".img " + DirectoryPath(name_)),
            kRefused);
  EXPECT_EQ(Mknod("-m 0660 -Z * /dev/loop250  b 7 250"), kRefused);
  EXPECT_EQ(Mknod("-m 0660 -Z * /dev/sda  b 8 0"), kRefused);
  EXPECT_EQ(Umount("/opt/media"), kRefused);
  EXPECT_EQ(Umount(DirectoryPath(name_) + "/"), kRefused);
}

TEST_F(PrivilegedOperations, ReadNoTextPastItsBuffer) {
  const std::string text = MountText(name_);
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
  const std::string other = UniquePackageName();
  const std::string forbidden = MakeImage(other, "forbidden");
  const std::string directory = MakeDirectory(name_);
  const std::string image = MakeImage(name_, "allowed");
  fs::create_symlink(forbidden, kPackages + "/link");
  const Swapper swapper({{image, kPackages + "/link"}});

  int mounted = 0;
  int refused = 0;
  for (int i = 0; i < 20000 && (mounted < kEnough || refused < kEnough); ++i) {
    const Answer answer = Mount(MountText(name_));
    if (answer == kDone) {
      ++mounted;
      ASSERT_EQ(readFile(directory + "/content"), "allowed");
      ASSERT_EQ(Umount(directory), kDone);
    } else {
      ASSERT_EQ(answer, kRefused) << "the link";
      ++refused;
    }
  }

  EXPECT_GE(mounted, kEnough);
  EXPECT_GE(refused, kEnough) << "the link was never there, so this showed nothing";
  EXPECT_THAT(LoopDevicesLeftOf(name_), IsEmpty());
  EXPECT_THAT(LoopDevicesLeftOf(other), IsEmpty());
}

// Where the kernel could find out what to mount by itself: with any other type it would.
TEST_F(PrivilegedOperations, MountNoOtherFileSystem) {
  const std::string image = ImagePath(name_);
  const std::string directory = MakeDirectory(name_);
  ASSERT_EQ(std::system(("/sbin/mke2fs -q -F -t ext4 -O ^has_journal " + image + " 1024").c_str()), 0);

  EXPECT_EQ(MountInVain(MountText(name_)), FailedWith(EINVAL));
}

TEST_F(PrivilegedOperations, LimitTheMemoryOfAnUnpackedImage) {
  if (!fwplatform::IsInUserNamespace()) {
    GTEST_SKIP() << "images are unpacked in a user namespace alone";
  }
  MakeImage(name_, "x");
  const std::string directory = MakeDirectory(name_);

  ASSERT_EQ(Mount(MountText(name_)), kDone);

  ASSERT_THAT(MountsOn(directory), SizeIs(1));
  EXPECT_THAT(MountsOn(directory)[0].options, HasSubstr("size=1048576k,nr_inodes=65536"));
  EXPECT_EQ(Umount(directory), kDone);
}

TEST_F(PrivilegedOperations, MakeNodesWhereTheKernelLetsThem) {
  const TemporaryMount dev = TemporaryMount::Memory("/dev");

  EXPECT_EQ(Mknod("-m 0660 -Z * /dev/loop7  b 7 7"),
            fwplatform::IsInUserNamespace() ? FailedWith(EPERM) : kDone);
}

class LoopNodes : public PrivilegedOperations {
 protected:
  void SetUp() override {
    PrivilegedOperations::SetUp();
    if (fwplatform::IsInUserNamespace()) {
      GTEST_SKIP() << "device nodes can't be made in a user namespace";
    }
    dev_.emplace(TemporaryMount::Memory("/dev"));
    ASSERT_EQ(mknod("/dev/loop-control", S_IFCHR | 0600, makedev(10, 237)), 0);
    ASSERT_EQ(mknod("/dev/null", S_IFCHR | 0666, makedev(1, 3)), 0);
  }

 private:
  std::optional<TemporaryMount> dev_;
};

TEST_F(LoopNodes, AreMadeWithTheirModeWhateverTheMask) {
  const mode_t previous = umask(0077);
  const Answer answer = Mknod("-m 0660 -Z * /dev/loop200  b 7 200");
  umask(previous);

  ASSERT_EQ(answer, kDone);
  struct stat status = {};
  ASSERT_EQ(lstat("/dev/loop200", &status), 0);
  EXPECT_EQ(status.st_mode, static_cast<mode_t>(S_IFBLK | 0660));
  EXPECT_EQ(status.st_rdev, makedev(7, 200));
}

TEST_F(LoopNodes, AreNotMadeOverWhatIsThere) {
  ASSERT_EQ(Mknod("-m 0660 -Z * /dev/loop7  b 7 7"), kDone);
  fs::create_symlink("/opt/media/target", "/dev/loop8");
  writeFile("/dev/loop9", "a file");

  EXPECT_EQ(Mknod("-m 0660 -Z * /dev/loop7  b 7 7"), FailedWith(EEXIST));
  EXPECT_EQ(Mknod("-m 0660 -Z * /dev/loop8  b 7 8"), FailedWith(EEXIST));
  EXPECT_EQ(Mknod("-m 0660 -Z * /dev/loop9  b 7 9"), FailedWith(EEXIST));
  EXPECT_FALSE(exists("/opt/media/target"));
  EXPECT_EQ(readFile("/dev/loop9"), "a file");
}

// The library's own answer to a device whose loop nodes are all in use, with the
// real kernel: no node is there at all, so all of none are in use.
TEST_F(LoopNodes, AreMadeByTheLibraryUntilAnImageIsMounted) {
  MakeImage(name_, "mounted after all");
  const std::string directory = DirectoryPath(name_);
  ASSERT_EQ(countPresentLoopDevices(), 0);
  ASSERT_EQ(countMountedLoopDevices(), 0);

  EXPECT_EQ(FWMountManager::getInstance()->Mount(ImagePath(name_), directory), 0);

  EXPECT_EQ(readFile(directory + "/content"), "mounted after all");
  EXPECT_EQ(countMountedLoopDevices(), 1);
  EXPECT_GE(countPresentLoopDevices(), 1);
  EXPECT_EQ(FWMountManager::getInstance()->UMount(directory), 0);
  EXPECT_THAT(LoopDevicesLeftOf(name_), IsEmpty());
}

// The first image takes a node; with all nodes in use again, the second one gets
// the next.
TEST_F(LoopNodes, AreMadeForASecondImageToo) {
  const std::string second = UniquePackageName();
  MakeImage(name_, "first");
  MakeImage(second, "second");
  FWMountManager* manager = FWMountManager::getInstance();
  ASSERT_EQ(manager->Mount(ImagePath(name_), DirectoryPath(name_)), 0);
  // Nodes that were tried and are free would be no reason to make more.
  for (const auto& entry : fs::directory_iterator("/dev")) {
    const std::string node = entry.path();
    if (node.rfind("/dev/loop", 0) == 0 && node != "/dev/loop-control" &&
        node != MountsOn(DirectoryPath(name_)).at(0).source) {
      fs::remove(entry.path());
    }
  }
  ASSERT_EQ(countPresentLoopDevices(), countMountedLoopDevices());

  EXPECT_EQ(manager->Mount(ImagePath(second), DirectoryPath(second)), 0);

  EXPECT_EQ(readFile(DirectoryPath(second) + "/content"), "second");
  EXPECT_EQ(manager->UMount(DirectoryPath(second)), 0);
  EXPECT_EQ(manager->UMount(DirectoryPath(name_)), 0);
}

}  // namespace
