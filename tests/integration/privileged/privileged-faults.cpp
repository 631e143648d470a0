// SPDX-License-Identifier: Apache-2.0
// The privileged operations when something changes, or fails, right between two of their
// steps: what an attacker hits by luck alone is made to happen here.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <linux/loop.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "call-faults.h"
#include "device-environment.h"
#include "package-images.h"
#include "privileged-calls.h"
#include "privileged/privileged-client.h"
#include "privileged/privileged-operations.h"
#include "privileged/squashfs-unpack.h"
#include "safe-path.h"
#include "temporary-mount.h"

namespace {

namespace fs = std::filesystem;
using base::FileDescriptor;
using fwplatform::OpenedPath;
using fwplatform::PrivilegedAnswer;
using fwplatform::PrivilegedCaller;
using fwplatform::PrivilegedOperation;
using fwplatform::RequestEnd;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::SizeIs;

const Answer kRefusedInside = {-EPERM, 0};

class PrivilegedFaults : public DeviceTest {
 protected:
  void SetUp() override {
    DeviceTest::SetUp();
    makeImage(name_, "the firmware");
    directory_ = makeDirectory(name_);
  }

  void TearDown() override {
    faults::before.clear();
    faults::after.clear();
    faults::kernelKnowsNoMountRoots = false;
    faults::kernelKnowsNoMountIds = false;
  }

  Answer ask(PrivilegedOperation operation, const std::string& text) {
    const PrivilegedAnswer answer = fwplatform::answerPrivilegedRequest(
        operation, text, {1, 2, 3}, [this](RequestEnd end, const PrivilegedCaller&, const std::string& line) {
          end_ = end;
          line_ = line;
        });
    return {answer.status, answer.result};
  }

  Answer askForMount() { return ask(PrivilegedOperation::Mount, mountText(name_) + '\0'); }

  Answer mountInVain() {
    const std::string before = readFile("/proc/self/mounts");
    const int descriptors = countDescriptors();
    const Answer answer = askForMount();
    EXPECT_EQ(readFile("/proc/self/mounts"), before);
    EXPECT_EQ(countDescriptors(), descriptors);
    EXPECT_THAT(loopDevicesLeftOf(name_), IsEmpty());
    return answer;
  }

  static int countDescriptors() {
    return static_cast<int>(std::distance(fs::directory_iterator("/proc/self/fd"), fs::directory_iterator()));
  }

  const std::string name_ = uniquePackageName();
  std::string directory_;
  RequestEnd end_ = RequestEnd::Gone;
  std::string line_;
};

TEST_F(PrivilegedFaults, AMountOnADirectoryThatIsMovedAwayIsTakenBack) {
  const std::string elsewhere = kPackages + "/elsewhere";
  faults::before["move_mount"] = [&] {
    fs::rename(directory_, elsewhere);
    return 0;
  };

  EXPECT_EQ(mountInVain(), kRefusedInside);

  EXPECT_THAT(line_,
              HasSubstr("refused mount of pid 1, uid 2, gid 3: " + name_ + " was moved away meanwhile"));
  EXPECT_TRUE(fs::is_empty(elsewhere));
}

TEST_F(PrivilegedFaults, AMountIsTakenBackWhenAnotherDirectoryHasItsName) {
  faults::before["move_mount"] = [&] {
    fs::rename(directory_, kPackages + "/elsewhere");
    fs::create_directory(directory_);
    return 0;
  };

  EXPECT_EQ(mountInVain(), kRefusedInside);
}

TEST_F(PrivilegedFaults, AMountIsTakenBackWhenItsParentIsReplaced) {
  faults::before["move_mount"] = [&] {
    fs::rename(kEmps, kPackages + "/other-emps");
    fs::create_directories(directory_);
    return 0;
  };

  EXPECT_EQ(mountInVain(), kRefusedInside);
}

TEST_F(PrivilegedFaults, AMountIsTakenBackWhenTheKernelDoesNotTellWhereItIs) {
  faults::kernelKnowsNoMountIds = true;

  EXPECT_EQ(mountInVain(), kRefusedInside);
}

TEST_F(PrivilegedFaults, AMountIsTakenBackWhenItsPlaceCannotBeLookedAt) {
  faults::after["move_mount"] = [] { faults::before["statx"] = [] { return ENOMEM; }; };

  EXPECT_EQ(mountInVain(), kRefusedInside);
}

// On such a kernel a directory that is mounted on looks like any other.
TEST_F(PrivilegedFaults, NothingIsMountedWhereTheKernelDoesNotTellWhatIsMounted) {
  faults::kernelKnowsNoMountRoots = true;

  EXPECT_EQ(mountInVain(), failedWith(ENOSYS));

  EXPECT_THAT(line_, HasSubstr("seeing whether " + name_ + " is mounted: Function not implemented"));
}

TEST_F(PrivilegedFaults, NothingIsMountedWhenTheDirectoryCannotBeLookedAt) {
  faults::before["statx"] = [] { return EIO; };

  EXPECT_EQ(mountInVain(), failedWith(EIO));
}

TEST_F(PrivilegedFaults, AFailureOfAnyStepIsTheResultAndLeavesNothing) {
  const bool inside = fwplatform::isInUserNamespace();
  std::vector<std::string> steps = {"fsopen", "fsconfig", "fsconfig create", "fsmount", "move_mount"};
  steps.emplace_back(inside ? "mount_setattr" : "LOOP_CTL_GET_FREE");
  for (const std::string& step : steps) {
    faults::before = {{step, [] { return EIO; }}};

    EXPECT_EQ(mountInVain(), failedWith(EIO)) << step;
    EXPECT_EQ(end_, RequestEnd::Failed) << step;
    EXPECT_THAT(line_, HasSubstr("Input/output error")) << step;
  }
}

// A program that another thread of the process starts meanwhile gets none of it.
TEST_F(PrivilegedFaults, NothingThatIsOpenedIsInherited) {
  const auto inheritable = [] {
    std::set<std::string> descriptors;
    for (const auto& entry : fs::directory_iterator("/proc/self/fd")) {
      const int number = std::stoi(entry.path().filename());
      if ((fcntl(number, F_GETFD) & FD_CLOEXEC) == 0) {
        descriptors.insert(entry.path().filename().string() + " " + fs::read_symlink(entry.path()).string());
      }
    }
    return descriptors;
  };
  const std::set<std::string> atFirst = inheritable();
  int looked = 0;
  for (const char* const call :
       {"statx", "LOOP_CONFIGURE", "fsconfig create", "fsmount", "move_mount", "umount2", "mknodat"}) {
    faults::before[call] = [&, call] {
      ++looked;
      EXPECT_EQ(inheritable(), atFirst) << call;
      return 0;
    };
  }

  EXPECT_EQ(askForMount(), kDone);
  EXPECT_EQ(ask(PrivilegedOperation::Umount, directory_), kDone);
  ask(PrivilegedOperation::Mknod, std::string("-m 0660 -Z * /dev/loop0  b 7 0") + '\0');

  EXPECT_GE(looked, 7);
}

TEST_F(PrivilegedFaults, TheImageThatWasCheckedIsMountedWhateverHasItsNameByThen) {
  const std::string other = uniquePackageName();
  const std::string replacement = makeImage(other, "not checked");
  faults::before["statx"] = [&] {
    fs::rename(replacement, imagePath(name_));
    faults::before.clear();
    return 0;
  };

  ASSERT_EQ(askForMount(), kDone);

  EXPECT_EQ(end_, RequestEnd::Done);
  EXPECT_EQ(readFile(directory_ + "/content"), "the firmware");
  EXPECT_EQ(ask(PrivilegedOperation::Umount, directory_), kDone);
}

// Beside its file system: nobody can make a writable one of it by changing that.
TEST_F(PrivilegedFaults, TheMountItselfIsReadOnly) {
  ASSERT_EQ(askForMount(), kDone);

  EXPECT_THAT(readFile("/proc/self/mountinfo"), HasSubstr(" " + directory_ + " ro,nosuid,nodev"));

  EXPECT_EQ(ask(PrivilegedOperation::Umount, directory_), kDone);
}

TEST_F(PrivilegedFaults, TheResultOfUnmountingIsTheKernels) {
  ASSERT_EQ(askForMount(), kDone);
  faults::before["umount2"] = [] { return EIO; };

  EXPECT_EQ(ask(PrivilegedOperation::Umount, directory_), failedWith(EIO));

  faults::before.clear();
  EXPECT_EQ(ask(PrivilegedOperation::Umount, directory_), kDone);
}

// With real loop devices alone.
class LoopDeviceFaults : public PrivilegedFaults {
 protected:
  void SetUp() override {
    PrivilegedFaults::SetUp();
    if (fwplatform::isInUserNamespace()) {
      GTEST_SKIP() << "there are no loop devices in a user namespace";
    }
  }
};

TEST_F(LoopDeviceFaults, ADeviceThatAnotherProcessTookIsNoReasonToFail) {
  int attempts = 0;
  faults::before["LOOP_CONFIGURE"] = [&] { return ++attempts < 50 ? EBUSY : 0; };

  EXPECT_EQ(askForMount(), kDone);

  EXPECT_EQ(attempts, 50);
  EXPECT_EQ(ask(PrivilegedOperation::Umount, directory_), kDone);
}

TEST_F(LoopDeviceFaults, AMachineThatTakesEveryDeviceIsNotWaitedForWithoutEnd) {
  int attempts = 0;
  faults::before["LOOP_CONFIGURE"] = [&] {
    ++attempts;
    return EBUSY;
  };

  EXPECT_EQ(mountInVain(), failedWith(EBUSY));

  EXPECT_EQ(attempts, 100);
}

TEST_F(LoopDeviceFaults, AnotherErrorOfTheDeviceIsTheResult) {
  int attempts = 0;
  faults::before["LOOP_CONFIGURE"] = [&] {
    ++attempts;
    return EIO;
  };

  EXPECT_EQ(mountInVain(), failedWith(EIO));

  EXPECT_EQ(attempts, 1);
}

TEST_F(LoopDeviceFaults, TheDeviceIsReadOnlyAndDetachesItself) {
  loop_info64 info = {};
  faults::after["LOOP_CONFIGURE"] = [&] {
    const FileDescriptor device(open(("/dev/" + loopDevicesOf(name_).at(0)).c_str(), O_RDONLY | O_CLOEXEC));
    faults::after.clear();
    ASSERT_EQ(ioctl(device.get(), LOOP_GET_STATUS64, &info), 0);
  };

  ASSERT_EQ(askForMount(), kDone);

  EXPECT_EQ(info.lo_flags, static_cast<unsigned>(LO_FLAGS_READ_ONLY | LO_FLAGS_AUTOCLEAR));
  EXPECT_EQ(ask(PrivilegedOperation::Umount, directory_), kDone);
}

// A /dev that holds no node but these.
class LoopNodeFaults : public LoopDeviceFaults {
 protected:
  void SetUp() override {
    LoopDeviceFaults::SetUp();
    if (IsSkipped()) {
      return;
    }
    dev_.emplace(TemporaryMount::memory("/dev"));
    ASSERT_EQ(mknod("/dev/loop-control", S_IFCHR | 0600, makedev(10, 237)), 0);
  }

  void makeNodes(int first, int last) {
    for (int number = first; number <= last; ++number) {
      const std::string path = "/dev/loop" + std::to_string(number);
      ASSERT_EQ(mknod(path.c_str(), S_IFBLK | 0660, makedev(7, static_cast<unsigned>(number))), 0);
    }
  }

  // The node that the kernel would take is one that is not there.
  static int freeDevice() {
    const FileDescriptor control(open("/dev/loop-control", O_RDWR | O_CLOEXEC));
    return ioctl(control.get(), LOOP_CTL_GET_FREE);
  }

 private:
  std::optional<TemporaryMount> dev_;
};

TEST_F(LoopNodeFaults, AnyFreeNodeDoesWhereTheKernelsIsMissing) {
  makeNodes(freeDevice() + 1, 7);

  ASSERT_EQ(askForMount(), kDone);

  EXPECT_EQ(readFile(directory_ + "/content"), "the firmware");
  EXPECT_EQ(ask(PrivilegedOperation::Umount, directory_), kDone);
}

TEST_F(LoopNodeFaults, WithoutAnyNodeTheResultSaysSo) {
  EXPECT_EQ(mountInVain(), failedWith(ENOENT));
}

TEST_F(LoopNodeFaults, WhenAllNodesAreTakenTheResultSaysSo) {
  makeNodes(freeDevice() + 1, 7);
  faults::before["LOOP_CONFIGURE"] = [] { return EBUSY; };

  EXPECT_EQ(mountInVain(), failedWith(EBUSY));
}

TEST_F(LoopNodeFaults, WhatIsNoLoopDeviceIsNotTaken) {
  const std::string node = "/dev/loop" + std::to_string(freeDevice());
  writeFile(node, "a file");
  EXPECT_EQ(mountInVain(), failedWith(ENOENT));
  fs::remove(node);
  ASSERT_EQ(mknod(node.c_str(), S_IFCHR | 0660, makedev(1, 3)), 0);
  EXPECT_EQ(mountInVain(), failedWith(ENOENT)) << "a character device";
  fs::remove(node);
  ASSERT_EQ(mknod("/dev/other", S_IFBLK | 0660, makedev(7, static_cast<unsigned>(freeDevice()))), 0);
  fs::create_symlink("/dev/other", node);
  EXPECT_EQ(mountInVain(), failedWith(ENOENT)) << "a link";
}

TEST_F(LoopNodeFaults, WithoutTheControlNodeNothingIsMounted) {
  fs::remove("/dev/loop-control");

  EXPECT_EQ(mountInVain(), failedWith(ENOENT));
}

// Somebody puts something else in the place of the node that was just made.
TEST_F(LoopNodeFaults, ANodeThatWasReplacedKeepsItsMode) {
  constexpr mode_t kMode = 0600;
  struct Case {
    mode_t type;
    dev_t device;
  };
  for (const Case& one : {Case{S_IFBLK, makedev(7, 9)}, Case{S_IFCHR, makedev(7, 8)}, Case{S_IFIFO, 0}}) {
    faults::after["mknodat"] = [&one] {
      faults::after.clear();
      fs::remove("/dev/loop8");
      ASSERT_EQ(mknod("/dev/loop8", one.type | kMode, one.device), 0);
    };

    EXPECT_EQ(ask(PrivilegedOperation::Mknod, std::string("-m 0660 -Z * /dev/loop8  b 7 8") + '\0'),
              failedWith(EEXIST));

    struct stat status = {};
    ASSERT_EQ(stat("/dev/loop8", &status), 0);
    EXPECT_EQ(status.st_mode & 0777U, kMode);
    fs::remove("/dev/loop8");
  }
}

TEST_F(LoopNodeFaults, ANodeIsForNobodyElseFromTheBeginning) {
  struct stat status = {};
  faults::after["mknodat"] = [&] { ASSERT_EQ(stat("/dev/loop8", &status), 0); };
  const mode_t previous = umask(0);

  EXPECT_EQ(ask(PrivilegedOperation::Mknod, std::string("-m 0660 -Z * /dev/loop8  b 7 8") + '\0'), kDone);

  umask(previous);
  EXPECT_EQ(status.st_mode & 0777U, 0660U);
}

TEST_F(LoopNodeFaults, ANodeThatIsGoneAgainIsAFailure) {
  faults::after["mknodat"] = [] { fs::remove("/dev/loop8"); };

  EXPECT_EQ(ask(PrivilegedOperation::Mknod, std::string("-m 0660 -Z * /dev/loop8  b 7 8") + '\0'),
            failedWith(ENOENT));
  EXPECT_THAT(line_, HasSubstr("setting the mode of /dev/loop8"));
}

TEST_F(PrivilegedFaults, AServiceThatEndsBeforeTheRequestIsSentIsSaidToHaveEnded) {
  const FileDescriptor listener(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  std::strcpy(address.sun_path, fwplatform::kPrivilegedSocketPath);
  ASSERT_EQ(bind(listener.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
  ASSERT_EQ(listen(listener.get(), 1), 0);
  faults::before["send"] = [&] {
    close(accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC));
    return 0;
  };
  PrivilegedAnswer answer;

  EXPECT_EQ(fwplatform::askPrivilegedService(PrivilegedOperation::Umount, directory_, 10000, answer),
            -ECONNRESET);
}

class SafePath : public DeviceTest {};

TEST_F(SafePath, OpensWithoutAnEffectOnWhatIsOpened) {
  OpenedPath opened;

  ASSERT_EQ(fwplatform::openEntry("/opt/usr", "apps", opened), 0);

  EXPECT_NE(fcntl(opened.fd.get(), F_GETFL) & O_PATH, 0);
  EXPECT_NE(fcntl(opened.fd.get(), F_GETFD) & FD_CLOEXEC, 0);
  EXPECT_TRUE(S_ISDIR(opened.status.st_mode));
}

TEST_F(SafePath, OpensTheRootAndWhatIsBelow) {
  FileDescriptor directory;
  EXPECT_EQ(fwplatform::openDirectory("/", directory), 0);
  EXPECT_EQ(fs::read_symlink(directory.path()), "/");
  EXPECT_EQ(fwplatform::openDirectory(kEmps, directory), 0);
  EXPECT_EQ(fs::read_symlink(directory.path()), kEmps);
}

TEST_F(SafePath, OpensNothingThroughALinkOrAFile) {
  fs::create_directory_symlink("/opt/usr", "/tmp/link");
  writeFile("/tmp/file", "x");
  FileDescriptor directory;
  OpenedPath entry;

  EXPECT_EQ(fwplatform::openDirectory("/tmp/link/apps", directory), ELOOP);
  EXPECT_EQ(fwplatform::openDirectory("/tmp/link", directory), ELOOP);
  EXPECT_EQ(fwplatform::openEntry("/tmp", "link", entry), ELOOP);
  EXPECT_EQ(fwplatform::openEntry("/tmp/link", "apps", entry), ELOOP);
  EXPECT_EQ(fwplatform::openDirectory("/tmp/file/x", directory), ENOTDIR);
  EXPECT_EQ(fwplatform::openDirectory("/tmp/missing", directory), ENOENT);
  EXPECT_FALSE(directory);
  EXPECT_FALSE(entry.fd);
}

TEST_F(SafePath, ReadsWhatItHasOpened) {
  writeFile("/tmp/file", "content");
  OpenedPath file;
  ASSERT_EQ(fwplatform::openEntry("/tmp", "file", file), 0);
  fs::rename("/tmp/file", "/tmp/renamed");
  FileDescriptor content;

  ASSERT_EQ(fwplatform::openForReading(file, content), 0);

  char bytes[8] = {};
  EXPECT_EQ(read(content.get(), bytes, sizeof bytes), 7);
  EXPECT_STREQ(bytes, "content");
  EXPECT_EQ(write(content.get(), bytes, 1), -1);
  EXPECT_NE(fcntl(content.get(), F_GETFD) & FD_CLOEXEC, 0);
}

TEST_F(SafePath, SaysWhyAFileCannotBeRead) {
  writeFile("/tmp/file", "content");
  fs::permissions("/tmp/file", fs::perms::none);
  const WithoutFileOverride bound;
  OpenedPath file;
  ASSERT_EQ(fwplatform::openEntry("/tmp", "file", file), 0);
  FileDescriptor content;

  EXPECT_EQ(fwplatform::openForReading(file, content), EACCES);
}

TEST_F(SafePath, TellsMountsApart) {
  fs::create_directories("/tmp/a/b");
  const FileDescriptor a(open("/tmp/a", O_PATH | O_CLOEXEC));
  const FileDescriptor b(open("/tmp/a/b", O_PATH | O_CLOEXEC));
  EXPECT_TRUE(fwplatform::areOnOneMount(a.get(), b.get()));
  const TemporaryMount mount = TemporaryMount::memory("/tmp/a/b");
  const FileDescriptor mounted(open("/tmp/a/b", O_PATH | O_CLOEXEC));

  EXPECT_FALSE(fwplatform::areOnOneMount(a.get(), mounted.get()));
  EXPECT_FALSE(fwplatform::areOnOneMount(mounted.get(), a.get()));
  EXPECT_FALSE(fwplatform::areOnOneMount(a.get(), -1));
  EXPECT_FALSE(fwplatform::areOnOneMount(-1, a.get()));
  EXPECT_FALSE(fwplatform::areOnOneMount(-1, -1));
}

}  // namespace
