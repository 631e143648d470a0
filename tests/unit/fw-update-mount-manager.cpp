// SPDX-License-Identifier: Apache-2.0
// Mounting and unmounting through the privileged service, and the loop devices.
#include "fw-update-mount-manager.h"

#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <boost/filesystem.hpp>
#include <cerrno>
#include <climits>
#include <filesystem>
#include <optional>
#include <stdexcept>

#include "library-test.h"
#include "mounted-over.h"

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace fs = std::filesystem;

namespace {

const std::string kImage = "/tmp/image";
const std::string kDirectory = "/tmp/mounted";
const std::string kArguments = "-o ro,loop,nodev,nosuid /tmp/image /tmp/mounted";
const std::string kMountCall = "PS_Mount(" + kArguments + "|1024|0|0)";
const std::string kMountTried = "log: PsMntCmd:[" + kArguments + "]";

std::string said(int priority, const std::string& function, const std::string& text) {
  return std::to_string(priority) + " fw-update-mount-manager.cpp " + function + " " + text;
}

std::string mountFailed(int status, int result) {
  return "Fail PS_Mount: file:[/tmp/image], dest:[/tmp/mounted], retVal:[" + std::to_string(status) +
         "], result:[" + std::to_string(result) + "]";
}

std::string counted(int present, int mounted) {
  return "loop count is " + std::to_string(present) + ", mount count is " + std::to_string(mounted);
}

std::string makeNodeCall(int number) {
  const std::string text = std::to_string(number);
  return "PS_Mknod(-m 0660 -Z * /dev/loop" + text + "  b 7 " + text + "|1024|0|0)";
}

std::vector<std::string> logFormats() {
  std::vector<std::string> out;
  for (const recording::LogLine& line : recording::logLines()) {
    out.push_back(line.format);
  }
  return out;
}

// Counts how often a file or directory is opened.
class OpenWatch {
 public:
  explicit OpenWatch(const std::string& path) : notifier_(inotify_init1(IN_NONBLOCK | IN_CLOEXEC)) {
    if (inotify_add_watch(notifier_, path.c_str(), IN_OPEN) < 0) {
      throw std::runtime_error("cannot watch " + path);
    }
  }
  OpenWatch(const OpenWatch&) = delete;
  OpenWatch& operator=(const OpenWatch&) = delete;
  ~OpenWatch() { close(notifier_); }

  bool sawOpening() const {
    std::array<char, sizeof(inotify_event) + NAME_MAX + 1> event{};
    return read(notifier_, event.data(), event.size()) > 0;
  }

 private:
  int notifier_;
};

class LoopDevices : public LibraryTest {
 protected:
  void TearDown() override {
    dev.reset();
    mounts.reset();
  }

  // Hides the host's devices and mount table behind these.
  void devices(const std::vector<std::string>& names, const std::string& mountTable) {
    dev.emplace(MountedOver::memory("/dev", "mode=0755"));
    for (const std::string& name : names) {
      writeFile("/dev/" + name, "");
    }
    writeFile("/tmp/mounts", mountTable);
    mounts.emplace(MountedOver::file("/proc/mounts", "/tmp/mounts"));
  }

  void devices(int present, int mounted) {
    std::vector<std::string> names = {"loop-control", "null"};
    for (int i = 0; i < present; ++i) {
      names.push_back("loop" + std::to_string(i));
    }
    std::string table = "/dev/root / ext4 rw 0 0\n";
    for (int i = 0; i < mounted; ++i) {
      table += "/dev/loop" + std::to_string(i) + " /mnt/" + std::to_string(i) + " squashfs ro 0 0\n";
    }
    devices(names, table);
  }

  std::optional<MountedOver> dev;
  std::optional<MountedOver> mounts;
};

class LoopMount : public LoopDevices {
 protected:
  static bool mountImage() { return loop_mount(kImage.c_str(), kDirectory.c_str(), "ro,loop,nodev,nosuid"); }
};

class MountManager : public LoopDevices {
 protected:
  void SetUp() override {
    LoopDevices::SetUp();
    writeFile(kImage, "image");
  }

  static FWMountManager& manager() { return *FWMountManager::getInstance(); }
};

}  // namespace

// ---- File tests ---------------------------------------------------------------------

TEST_F(MountManager, IsOneForTheProcess) {
  EXPECT_EQ(FWMountManager::getInstance(), FWMountManager::getInstance());
  EXPECT_THAT(recording::everything(), IsEmpty());
}

TEST_F(MountManager, TellsFilesAndDirectoriesApart) {
  fs::create_directory(kDirectory);
  ASSERT_EQ(mkfifo("/tmp/fifo", 0600), 0);
  fs::create_symlink(kImage, "/tmp/to-file");
  fs::create_directory_symlink(kDirectory, "/tmp/to-directory");
  fs::create_symlink("/tmp/nowhere", "/tmp/dangling");
  const struct {
    const char* path;
    bool isFile;
    bool isDirectory;
  } cases[] = {
      {"/tmp/image", true, false},        {"/tmp/mounted", false, true},
      {"/tmp/mounted/", false, true},     {"/tmp/image/", false, false},
      {"/tmp/fifo", false, false},        {"/tmp/to-file", true, false},
      {"/tmp/to-directory", false, true}, {"/tmp/dangling", false, false},
      {"/tmp/missing", false, false},     {"", false, false},
      {"/dev/null", false, false},
  };

  for (const auto& row : cases) {
    EXPECT_EQ(IsFile(row.path), row.isFile) << row.path;
    EXPECT_EQ(IsDir(row.path), row.isDirectory) << row.path;
  }
}

// ---- Counting -----------------------------------------------------------------------

TEST_F(LoopDevices, CountsPresentNodesByTheirPathAlone) {
  devices({"loop0", "loop7", "loop", "loopback", "loop-control", "loop-control2", "null", "xloop1", "Loop2"},
          "");
  fs::create_directory("/dev/loop-directory");
  writeFile("/dev/loop-directory/loop9", "");
  writeFile("/dev/mapper/loop3", "");
  fs::create_symlink("/nowhere", "/dev/loop-link");

  EXPECT_EQ(countPresentLoopDevices(), 6);
}

TEST_F(LoopDevices, CountsTheFirstNodeButNotTheControlNode) {
  devices({"loop-control"}, "");
  EXPECT_EQ(countPresentLoopDevices(), 0);

  writeFile("/dev/loop0", "");
  EXPECT_EQ(countPresentLoopDevices(), 1);
}

TEST_F(LoopDevices, RaiseAFileSystemErrorWhenTheyCannotBeListed) {
  dev.emplace(MountedOver::memory("/dev", "mode=0000"));
  const WithoutFileOverride asAnyone;

  EXPECT_THROW(countPresentLoopDevices(), boost::filesystem::filesystem_error);
}

TEST_F(LoopDevices, CountsMountTableLinesThatBeginWithALoopDevice) {
  devices({},
          "/dev/loop0 /a squashfs ro 0 0\n"
          "proc /dev/loop1 proc rw 0 0\n"
          " /dev/loop2 /b ext4 rw 0 0\n"
          "\n"
          "/dev/loop-control /c x rw 0 0\n"
          "/dev/loopback\n"
          "/dev/loo\n"
          "/dev/loop3");

  EXPECT_EQ(countMountedLoopDevices(), 4);
}

TEST_F(LoopDevices, CountsNoneInAnEmptyMountTable) {
  devices({}, "");

  EXPECT_EQ(countMountedLoopDevices(), 0);
}

TEST_F(LoopDevices, CountsNoneWithoutAReadableMountTable) {
  devices(0, 3);
  ASSERT_EQ(countMountedLoopDevices(), 3);
  fs::permissions("/tmp/mounts", fs::perms::none);
  const WithoutFileOverride asAnyone;

  EXPECT_EQ(countMountedLoopDevices(), 0);
}

// ---- loop_mount ---------------------------------------------------------------------

TEST_F(LoopMount, NeedsNeitherDevicesNorMountTableWhenTheFirstTrySucceeds) {
  devices(8, 8);
  const OpenWatch devWatch("/dev");
  const OpenWatch mountsWatch("/proc/mounts");

  EXPECT_TRUE(mountImage());

  EXPECT_FALSE(devWatch.sawOpening());
  EXPECT_FALSE(mountsWatch.sawOpening());
  EXPECT_THAT(recording::everything(), ElementsAre(kMountTried, kMountCall));
  EXPECT_THAT(recording::messages(), ElementsAre(said(4, "loop_mount", "PsMntCmd:[" + kArguments + "]")));
  EXPECT_THAT(logFormats(), ElementsAre("%s: %s(%d) > PsMntCmd:[%s]"));
  EXPECT_THAT(recording::traceRecords(), IsEmpty());
}

TEST_F(LoopMount, PassesOptionsSourceAndDestinationInThisOrder) {
  EXPECT_TRUE(loop_mount("source", "destination", "option,list"));

  EXPECT_THAT(recording::calls(), ElementsAre("PS_Mount(-o option,list source destination|1024|0|0)"));
}

TEST_F(LoopMount, CreatesNoNodeWhileOneIsFree) {
  devices(8, 7);
  const OpenWatch devWatch("/dev");
  const OpenWatch mountsWatch("/proc/mounts");
  recording::answers().mount = [](const std::string&, int& result) {
    result = 32;
    return 0;
  };

  EXPECT_FALSE(mountImage());

  EXPECT_TRUE(devWatch.sawOpening());
  EXPECT_TRUE(mountsWatch.sawOpening());
  EXPECT_THAT(recording::everything(),
              ElementsAre(kMountTried, kMountCall, "log: " + mountFailed(0, 32), "log: " + counted(8, 7)));
  EXPECT_THAT(recording::messages(),
              ElementsAre(said(4, "loop_mount", "PsMntCmd:[" + kArguments + "]"),
                          said(4, "loop_mount", mountFailed(0, 32)), said(4, "loop_mount", counted(8, 7))));
  EXPECT_THAT(logFormats(),
              ElementsAre("%s: %s(%d) > PsMntCmd:[%s]",
                          "%s: %s(%d) > Fail PS_Mount: file:[%s], dest:[%s], retVal:[%d], result:[%d]",
                          "%s: %s(%d) > loop count is %d, mount count is %d"));
  EXPECT_THAT(recording::traceRecords(), IsEmpty());
}

TEST_F(LoopMount, CreatesNoNodeWhenMoreAreMountedThanPresent) {
  devices(7, 8);
  recording::answers().mount = [](const std::string&, int&) { return -1; };

  EXPECT_FALSE(mountImage());

  EXPECT_THAT(recording::calls(), ElementsAre(kMountCall));
  EXPECT_THAT(recording::texts().back(), counted(7, 8));
}

TEST_F(LoopMount, CreatesTheNextNodeAndTriesAgainWhenAllAreInUse) {
  devices(8, 8);
  int tries = 0;
  recording::answers().mount = [&tries](const std::string&, int&) { return ++tries == 1 ? -1 : 0; };

  EXPECT_TRUE(mountImage());

  EXPECT_THAT(recording::everything(),
              ElementsAre(kMountTried, kMountCall, "log: " + mountFailed(-1, 0), "log: " + counted(8, 8),
                          "PS_Mknod(-m 0660 -Z * /dev/loop8  b 7 8|1024|0|0)", kMountCall));
  EXPECT_THAT(recording::traceRecords(), IsEmpty());
}

TEST_F(LoopMount, CreatesTheFirstNodeWhenThereIsNone) {
  devices(0, 0);
  int tries = 0;
  recording::answers().mount = [&tries](const std::string&, int&) { return ++tries == 1 ? -1 : 0; };

  EXPECT_TRUE(mountImage());

  EXPECT_THAT(recording::calls(), ElementsAre(kMountCall, makeNodeCall(0), kMountCall));
}

TEST_F(LoopMount, GoesOnWithTheNextNumberAfterAFailure) {
  devices(8, 8);
  // Each fails once with a status, once with a result; /dev/loop12 succeeds.
  recording::answers().makeNode = [](const std::string& arguments, int& result) {
    if (arguments.find("loop8 ") != std::string::npos) {
      return -3;
    }
    if (arguments.find("loop9 ") != std::string::npos) {
      result = 17;
    }
    return 0;
  };
  int tries = 0;
  recording::answers().mount = [&tries](const std::string&, int& result) {
    ++tries;
    if (tries == 3) {
      result = 5;
    }
    return tries <= 2 ? -tries : 0;
  };

  EXPECT_TRUE(mountImage());

  EXPECT_THAT(recording::everything(),
              ElementsAre(kMountTried, kMountCall, "log: " + mountFailed(-1, 0), "log: " + counted(8, 8),
                          makeNodeCall(8), "log: PS_Mknod error, retVal: [-3], result: [0]", makeNodeCall(9),
                          "log: PS_Mknod error, retVal: [0], result: [17]", makeNodeCall(10), kMountCall,
                          "log: " + mountFailed(-2, 0), makeNodeCall(11), kMountCall,
                          "log: " + mountFailed(0, 5), makeNodeCall(12), kMountCall));
  EXPECT_THAT(
      recording::messages(),
      ElementsAre(said(4, "loop_mount", "PsMntCmd:[" + kArguments + "]"),
                  said(4, "loop_mount", mountFailed(-1, 0)), said(4, "loop_mount", counted(8, 8)),
                  said(6, "loop_mount", "PS_Mknod error, retVal: [-3], result: [0]"),
                  said(6, "loop_mount", "PS_Mknod error, retVal: [0], result: [17]"),
                  said(6, "loop_mount", mountFailed(-2, 0)), said(6, "loop_mount", mountFailed(0, 5))));
  EXPECT_THAT(
      recording::traceFormats(),
      ElementsAre("PS_Mknod error, retVal: [%d], result: [%d]", "PS_Mknod error, retVal: [%d], result: [%d]",
                  "Fail PS_Mount: file:[%s], dest:[%s], retVal:[%d], result:[%d]",
                  "Fail PS_Mount: file:[%s], dest:[%s], retVal:[%d], result:[%d]"));
}

TEST_F(LoopMount, TracesTheValuesOfAFailure) {
  devices(249, 249);
  recording::answers().mount = [](const std::string&, int& result) {
    result = 258;
    return 1;
  };

  EXPECT_FALSE(mountImage());

  ASSERT_EQ(recording::traceRecords().size(), 1U);
  const int values[] = {1, 258};
  EXPECT_EQ(
      recording::traceRecords()[0].payload,
      "\x0A/tmp/image\x0C/tmp/mounted" + std::string(reinterpret_cast<const char*>(values), sizeof(values)));
}

TEST_F(LoopMount, TriesNumber249AsTheLast) {
  devices(249, 249);
  recording::answers().mount = [](const std::string&, int&) { return -1; };

  EXPECT_FALSE(mountImage());

  EXPECT_THAT(recording::calls(), ElementsAre(kMountCall, makeNodeCall(249), kMountCall));
  EXPECT_THAT(recording::texts(), Contains(counted(249, 249)));
}

class NoLoopNumberLeft : public LoopMount, public ::testing::WithParamInterface<int> {};

TEST_P(NoLoopNumberLeft, CreatesNoNode) {
  devices(GetParam(), GetParam());
  recording::answers().mount = [](const std::string&, int&) { return -1; };

  EXPECT_FALSE(mountImage());

  EXPECT_THAT(recording::everything(), ElementsAre(kMountTried, kMountCall, "log: " + mountFailed(-1, 0),
                                                   "log: " + counted(GetParam(), GetParam())));
}

INSTANTIATE_TEST_SUITE_P(LoopMount, NoLoopNumberLeft, ::testing::Values(250, 251, 300));

TEST_F(LoopMount, GivesUpAfterNumber249) {
  devices(3, 3);
  recording::answers().makeNode = [](const std::string&, int&) { return -1; };
  recording::answers().mount = [](const std::string&, int&) { return -1; };

  EXPECT_FALSE(mountImage());

  const auto calls = recording::calls();
  ASSERT_EQ(calls.size(), 1U + 247U);
  EXPECT_EQ(calls[1], makeNodeCall(3));
  EXPECT_EQ(calls.back(), makeNodeCall(249));
}

TEST_F(LoopMount, LetsTheErrorOfAnUnreadableDeviceDirectoryThrough) {
  devices(8, 8);
  fs::permissions("/dev", fs::perms::none);
  recording::answers().mount = [](const std::string&, int&) { return -1; };
  const OpenWatch mountsWatch("/proc/mounts");
  const WithoutFileOverride asAnyone;

  EXPECT_THROW(mountImage(), boost::filesystem::filesystem_error);

  EXPECT_FALSE(mountsWatch.sawOpening()) << "the devices are counted first";
  EXPECT_THAT(recording::texts(), ElementsAre("PsMntCmd:[" + kArguments + "]", mountFailed(-1, 0)));
}

TEST_F(LoopMount, SendsARequestThatJustFits) {
  const std::string source(1024 - 1 - std::string("-o x  d").size(), 's');

  EXPECT_TRUE(loop_mount(source.c_str(), "d", "x"));

  EXPECT_THAT(recording::calls(), ElementsAre("PS_Mount(-o x " + source + " d|1024|0|0)"));
}

TEST_F(LoopMount, NeverSendsARequestCutOff) {
  const std::string source(1024 - std::string("-o x  d").size(), 's');

  EXPECT_FALSE(loop_mount(source.c_str(), "d", "x"));

  EXPECT_THAT(recording::calls(), IsEmpty());
  EXPECT_THAT(recording::messages(),
              ElementsAre(said(4, "loop_mount",
                               "Fail PS_Mount: file:[" + source + "], dest:[d], retVal:[-1], result:[0]")));
}

// ---- Mount --------------------------------------------------------------------------

TEST_F(MountManager, MountsWithTheFixedOptions) {
  fs::create_directory(kDirectory);

  EXPECT_EQ(manager().Mount(kImage, kDirectory), 0);

  EXPECT_THAT(recording::everything(), ElementsAre(kMountTried, kMountCall));
}

TEST_F(MountManager, FollowsALinkToTheImage) {
  fs::create_symlink(kImage, "/tmp/link");
  fs::create_directory(kDirectory);

  EXPECT_EQ(manager().Mount("/tmp/link", kDirectory), 0);

  EXPECT_THAT(recording::calls(),
              ElementsAre("PS_Mount(-o ro,loop,nodev,nosuid /tmp/link /tmp/mounted|1024|0|0)"));
}

TEST_F(MountManager, AnswersMinusOneWhenTheMountFails) {
  fs::create_directory(kDirectory);
  devices(8, 7);
  recording::answers().mount = [](const std::string&, int&) { return -1; };

  EXPECT_EQ(manager().Mount(kImage, kDirectory), -1);

  EXPECT_THAT(recording::calls(), ElementsAre(kMountCall));
}

TEST_F(MountManager, LetsAFileSystemErrorThrough) {
  fs::create_directory(kDirectory);
  devices(8, 8);
  fs::permissions("/dev", fs::perms::none);
  recording::answers().mount = [](const std::string&, int&) { return -1; };
  const WithoutFileOverride asAnyone;

  EXPECT_THROW(manager().Mount(kImage, kDirectory), boost::filesystem::filesystem_error);
}

TEST_F(MountManager, RefusesAnEmptySourceOrDestination) {
  const std::pair<std::string, std::string> cases[] = {{"", kDirectory}, {kImage, ""}, {"", ""}};

  for (const auto& [source, destination] : cases) {
    recording::reset();

    EXPECT_EQ(manager().Mount(source, destination), -1);

    EXPECT_THAT(recording::messages(), ElementsAre(said(6, "Mount", "Source file or dest dir is empty.")));
    EXPECT_THAT(recording::traceFormats(), ElementsAre("Source file or dest dir is empty."));
    EXPECT_THAT(recording::calls(), IsEmpty());
  }
  EXPECT_FALSE(exists(kDirectory)) << "the file system is not touched";
}

class NoSourceFile : public MountManager, public ::testing::WithParamInterface<const char*> {};

TEST_P(NoSourceFile, IsRefusedAndNoDirectoryIsMade) {
  fs::create_directory("/tmp/directory");
  fs::create_symlink("/tmp/nowhere", "/tmp/dangling");
  ASSERT_EQ(mkfifo("/tmp/fifo", 0600), 0);

  EXPECT_EQ(manager().Mount(GetParam(), kDirectory), -1);

  EXPECT_THAT(recording::messages(),
              ElementsAre(said(6, "Mount", "srcFile[" + std::string(GetParam()) + "] is not exist.")));
  EXPECT_THAT(recording::traceFormats(), ElementsAre("srcFile[%s] is not exist."));
  EXPECT_THAT(recording::calls(), IsEmpty());
  EXPECT_FALSE(exists(kDirectory));
}

INSTANTIATE_TEST_SUITE_P(MountManager, NoSourceFile,
                         ::testing::Values("/tmp/missing", "/tmp/directory", "/tmp/dangling", "/tmp/fifo"));

TEST_F(MountManager, CreatesAMissingDestination) {
  const mode_t previous = umask(0);

  const int result = manager().Mount(kImage, kDirectory);
  umask(previous);

  EXPECT_EQ(result, 0);
  struct stat status = {};
  ASSERT_EQ(stat(kDirectory.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode, static_cast<mode_t>(S_IFDIR | 0775));
  EXPECT_THAT(recording::everything(), ElementsAre(kMountTried, kMountCall));
}

TEST_F(MountManager, LeavesAnExistingDestinationAsItIs) {
  fs::create_directory(kDirectory);
  fs::permissions(kDirectory, fs::perms::owner_all);

  EXPECT_EQ(manager().Mount(kImage, kDirectory), 0);

  EXPECT_EQ(fs::status(kDirectory).permissions(), fs::perms::owner_all);
}

TEST_F(MountManager, DoesNotCreateParentsOfTheDestination) {
  EXPECT_EQ(manager().Mount(kImage, "/tmp/missing/mounted"), -1);

  EXPECT_THAT(recording::messages(),
              ElementsAre(said(6, "Mount",
                               "Dest Path [/tmp/missing/mounted] failed to create! return:[-1], errno:[2, No "
                               "such file or directory, ]")));
  EXPECT_THAT(recording::traceFormats(),
              ElementsAre("Dest Path [%s] failed to create! return:[%d], errno:[%d, %s, %s]"));
  const int values[] = {-1, ENOENT};
  EXPECT_EQ(recording::traceRecords()[0].payload,
            "\x14/tmp/missing/mounted" + std::string(reinterpret_cast<const char*>(values), sizeof(values)) +
                "\x19No such file or directory" + std::string(1, '\0'));
  EXPECT_THAT(recording::calls(), IsEmpty());
  EXPECT_FALSE(exists("/tmp/missing"));
}

TEST_F(MountManager, ReportsADestinationThatIsALinkToNowhere) {
  fs::create_symlink("/tmp/nowhere", kDirectory);

  EXPECT_EQ(manager().Mount(kImage, kDirectory), -1);

  EXPECT_THAT(
      recording::texts(),
      ElementsAre("Dest Path [/tmp/mounted] failed to create! return:[-1], errno:[17, File exists, ]"));
  EXPECT_FALSE(exists("/tmp/nowhere"));
}

TEST_F(MountManager, LeavesAFileInTheDestinationsPlaceToTheService) {
  writeFile(kDirectory, "file");

  EXPECT_EQ(manager().Mount(kImage, kDirectory), 0);

  EXPECT_THAT(recording::calls(), ElementsAre(kMountCall));
}

TEST_F(MountManager, DoesNotMountOverALongPathThatDoesNotFit) {
  const std::string parent = "/tmp/" + std::string(250, 'a') + "/" + std::string(250, 'b') + "/" +
                             std::string(250, 'c') + "/" + std::string(250, 'd');
  fs::create_directories(parent);

  EXPECT_EQ(manager().Mount(kImage, parent), -1);

  EXPECT_THAT(recording::calls(), IsEmpty());
  EXPECT_THAT(recording::texts(), ElementsAre("Fail PS_Mount: file:[/tmp/image], dest:[" + parent +
                                              "], retVal:[-1], result:[0]"));
}

// ---- UMount -------------------------------------------------------------------------

TEST_F(MountManager, UnmountsADirectory) {
  fs::create_directory(kDirectory);

  EXPECT_EQ(manager().UMount(kDirectory), 0);

  EXPECT_THAT(recording::everything(),
              ElementsAre("PS_Umount(/tmp/mounted|12|0|0)", "log: Umount dir[/tmp/mounted] successfully."));
  EXPECT_THAT(recording::messages(),
              ElementsAre(said(4, "UMount", "Umount dir[/tmp/mounted] successfully.")));
  EXPECT_THAT(logFormats(), ElementsAre("%s: %s(%d) > Umount dir[%s] successfully."));
  EXPECT_THAT(recording::traceRecords(), IsEmpty());
}

TEST_F(MountManager, RefusesToUnmountAnEmptyPath) {
  EXPECT_EQ(manager().UMount(""), -1);

  EXPECT_THAT(recording::messages(), ElementsAre(said(6, "UMount", "Input umount dir is empty.")));
  EXPECT_THAT(recording::traceFormats(), ElementsAre("Input umount dir is empty."));
  EXPECT_THAT(recording::calls(), IsEmpty());
}

class NoDirectory : public MountManager, public ::testing::WithParamInterface<const char*> {};

TEST_P(NoDirectory, IsNotUnmounted) {
  fs::create_symlink("/tmp/nowhere", "/tmp/dangling");

  EXPECT_EQ(manager().UMount(GetParam()), -1);

  EXPECT_THAT(recording::messages(),
              ElementsAre(said(6, "UMount", "Umount dir[" + std::string(GetParam()) + "] is invalid.")));
  EXPECT_THAT(recording::traceFormats(), ElementsAre("Umount dir[%s] is invalid."));
  EXPECT_THAT(recording::calls(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(MountManager, NoDirectory,
                         ::testing::Values("/tmp/image", "/tmp/missing", "/tmp/dangling"));

TEST_F(MountManager, ReportsAnUnmountThatTheServiceRefuses) {
  fs::create_directory(kDirectory);
  const std::pair<int, int> answers[] = {{-1, 0}, {0, 22}, {3, -4}};

  for (const auto& [status, result] : answers) {
    recording::reset();
    recording::answers().unmount = [status = status, answer = result](const std::string&, int& out) {
      out = answer;
      return status;
    };

    EXPECT_EQ(manager().UMount(kDirectory), -1);

    EXPECT_THAT(recording::messages(), ElementsAre(said(6, "UMount",
                                                        "Error(iRet1=" + std::to_string(status) +
                                                            ", iRet2=" + std::to_string(result) +
                                                            ") while unmounitng [/tmp/mounted]")));
    EXPECT_THAT(recording::traceFormats(), ElementsAre("Error(iRet1=%d, iRet2=%d) while unmounitng [%s]"));
  }
}

TEST_F(MountManager, ReportsAnExceptionWhileUnmounting) {
  fs::create_directory(kDirectory);
  recording::answers().unmount = [](const std::string&, int&) -> int {
    throw std::logic_error("service is gone");
  };

  EXPECT_EQ(manager().UMount(kDirectory), -1);

  EXPECT_THAT(recording::messages(),
              ElementsAre(said(6, "UMount", "Failed to umount[/tmp/mounted], error[service is gone].")));
  EXPECT_THAT(recording::traceFormats(), ElementsAre("Failed to umount[%s], error[%s]."));
}
