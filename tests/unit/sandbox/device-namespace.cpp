// SPDX-License-Identifier: Apache-2.0
#include "device-namespace.h"

#include <fcntl.h>
#include <sched.h>
#include <semaphore.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <functional>
#include <iostream>
#include <thread>

#include "device-environment.h"
#include "device-layout.h"
#include "mount-table.h"

namespace fs = std::filesystem;

namespace {

// What an act in a child process came to: True and False are its answer.
enum Answer { True = 0, False = 1, Threw = 2 };

// Runs act in a child process, which may enter a device of its own: the device that
// this test program is in is then its host.
int inChild(const std::function<bool()>& act) {
  const pid_t child = fork();
  if (child == 0) {
    int answer = Threw;
    try {
      answer = act() ? True : False;
    } catch (const std::exception& error) {
      std::cerr << error.what() << std::endl;
    }
    _exit(answer);
  }
  int status = 0;
  waitpid(child, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// Where nothing is mounted below a directory, the device puts a layer over it.
void unmountBelow(const std::string& directory) {
  for (const auto& point : base::mountPoints()) {
    if (base::isBelow(point, directory)) {
      umount2(point.c_str(), MNT_DETACH);
    }
  }
}

// The fixture's device plays the host.
class DeviceNamespace : public DeviceTest {
 protected:
  void SetUp() override {
    DeviceTest::SetUp();
    fs::create_directories(directory);
  }

  const std::string directory = "/tmp/device";
};

TEST_F(DeviceNamespace, HidesWhatTheHostHasAtTheDevicesPlaces) {
  for (const auto& place : sandbox::kDeviceDirectories) {
    if (place.place != sandbox::Place::Writable) {
      writeFile(std::string(place.path) + "/of-the-host", "x");
    }
  }

  const int hidden = inChild([] {
    sandbox::enterDevice({});
    bool none = true;
    for (const auto& place : sandbox::kDeviceDirectories) {
      none = none && !exists(std::string(place.path) + "/of-the-host");
    }
    return none;
  });

  EXPECT_EQ(hidden, True);
}

TEST_F(DeviceNamespace, HasEveryDirectoryWithItsModeFromTheBeginning) {
  for (const auto& where : {std::string(), directory}) {
    const int complete = inChild([&] {
      sandbox::enterDevice({where, {}});
      bool all = true;
      for (const auto& place : sandbox::kDeviceDirectories) {
        const auto status = fs::status(place.path);
        all = all && fs::is_directory(status) && static_cast<mode_t>(status.permissions()) == place.mode;
      }
      return all;
    });

    EXPECT_EQ(complete, True) << where;
  }
}

TEST_F(DeviceNamespace, HidesTheHostsVerifierLibrary) {
  writeFile(sandbox::kVerifierLibrary, "of the host");

  const int hidden = inChild([] {
    sandbox::enterDevice({});
    return !exists(sandbox::kVerifierLibrary);
  });

  EXPECT_EQ(hidden, True);
  EXPECT_EQ(readFile(sandbox::kVerifierLibrary), "of the host");
}

TEST_F(DeviceNamespace, HidesTheHostsVerifierLibraryBelowALayerToo) {
  writeFile(sandbox::kVerifierLibrary, "of the host");

  const int hidden = inChild([] {
    unmountBelow("/usr");
    sandbox::enterDevice({});
    return !exists(sandbox::kVerifierLibrary);
  });

  EXPECT_EQ(hidden, True);
  EXPECT_EQ(readFile(sandbox::kVerifierLibrary), "of the host");
}

TEST_F(DeviceNamespace, ShowsTheVerifierLibraryOfTheDevicesDirectory) {
  writeFile(directory + sandbox::kVerifierLibrary, "of the device");

  const int shown = inChild([this] {
    sandbox::enterDevice({directory, {}});
    return readFile(sandbox::kVerifierLibrary) == "of the device";
  });

  EXPECT_EQ(shown, True);
}

TEST_F(DeviceNamespace, KeepsEveryPlacesStateInTheDirectory) {
  const int written = inChild([this] {
    sandbox::enterDevice({directory, {}});
    for (const auto& place : sandbox::kDeviceDirectories) {
      writeFile(std::string(place.path) + "/state", place.path);
    }
    return true;
  });

  ASSERT_EQ(written, True);
  for (const auto& place : sandbox::kDeviceDirectories) {
    if (place.place != sandbox::Place::Writable) {
      EXPECT_EQ(readFile(directory + place.path + "/state"), place.path);
    }
    EXPECT_FALSE(exists(std::string(place.path) + "/state")) << place.path;
  }
}

TEST_F(DeviceNamespace, InMemoryLeavesNothingBehind) {
  ASSERT_EQ(inChild([] {
              sandbox::enterDevice({});
              writeFile("/tmp/state", "x");
              writeFile("/usr/lib/state", "x");
              writeFile("/new-at-the-top", "x");
              return true;
            }),
            True);

  EXPECT_FALSE(exists("/tmp/state"));
  EXPECT_FALSE(exists("/usr/lib/state"));
  EXPECT_FALSE(exists("/new-at-the-top"));
}

TEST_F(DeviceNamespace, KeepsMountsToItself) {
  const auto before = base::mountPoints();

  ASSERT_EQ(inChild([] {
              sandbox::enterDevice({});
              return mount("tmpfs", "/opt/media", "tmpfs", 0, nullptr) == 0;
            }),
            True);

  EXPECT_EQ(base::mountPoints(), before);
}

// As the service manager mounts it: what is mounted in one namespace appears in the others.
bool shareMounts() {
  return unshare(CLONE_NEWNS) == 0 && mount(nullptr, "/", nullptr, MS_REC | MS_SHARED, nullptr) == 0;
}

TEST_F(DeviceNamespace, KeepsMountsToItselfOnAHostThatSharesThem) {
  EXPECT_EQ(inChild([] {
              if (!shareMounts()) {
                return false;
              }
              const auto before = base::mountPoints();
              const int mounted = inChild([] {
                sandbox::enterDevice({});
                return mount("tmpfs", "/opt/media", "tmpfs", 0, nullptr) == 0;
              });
              return mounted == True && base::mountPoints() == before;
            }),
            True);
}

TEST_F(DeviceNamespace, HasNamespacesOfItsOwn) {
  EXPECT_EQ(inChild([] {
              const auto mounts = fs::read_symlink("/proc/self/ns/mnt");
              const auto communication = fs::read_symlink("/proc/self/ns/ipc");
              sandbox::enterDevice({});
              return fs::read_symlink("/proc/self/ns/mnt") != mounts &&
                     fs::read_symlink("/proc/self/ns/ipc") != communication;
            }),
            True);
}

TEST_F(DeviceNamespace, SharesSemaphoresBetweenProcessesInOneDirectory) {
  const auto semaphoreValue = [](unsigned initial) {
    sem_t* semaphore = sem_open("/SEM_UPDATE_CONTROL", O_CREAT, 0600, initial);
    int value = -1;
    sem_getvalue(semaphore, &value);
    return value;
  };

  ASSERT_EQ(inChild([&] {
              sandbox::enterDevice({directory, {}});
              return semaphoreValue(7) == 7;
            }),
            True);
  EXPECT_EQ(inChild([&] {
              sandbox::enterDevice({directory, {}});
              return semaphoreValue(1) == 7;
            }),
            True);
}

// Whether what stands there can be neither changed nor removed nor added to.
bool isProtected(const std::string& directory, const std::string& file) {
  const auto path = directory + "/" + file;
  const auto refused = [](int result) { return result != 0 && errno == EROFS; };
  return refused(open(path.c_str(), O_WRONLY) < 0 ? -1 : 0) && refused(unlink(path.c_str())) &&
         refused(chmod(path.c_str(), 0600)) && refused(mkdir((directory + "/new").c_str(), 0755));
}

TEST_F(DeviceNamespace, ShowsAVisibleDirectoryToRead) {
  writeFile("/tmp/build/of the host/program", "x");

  const int visible = inChild([] {
    sandbox::enterDevice({"", {"/tmp/build/of the host/", "/tmp/not-there"}});
    return readFile("/tmp/build/of the host/program") == "x" &&
           isProtected("/tmp/build/of the host", "program") && !exists("/tmp/device") &&
           !exists("/tmp/not-there");
  });

  EXPECT_EQ(visible, True);
  EXPECT_EQ(readFile("/tmp/build/of the host/program"), "x");
}

TEST_F(DeviceNamespace, MountsAVisibleDirectoryOnceHoweverItIsWritten) {
  fs::create_directories("/tmp/build/directory");

  EXPECT_EQ(inChild([] {
              sandbox::enterDevice({"", {"/tmp/build/directory/"}});
              const std::string mounts = readFile("/proc/self/mounts");
              const std::string place = " /tmp/build/directory ";
              const auto first = mounts.find(place);
              return first != std::string::npos && mounts.find(place, first + 1) == std::string::npos;
            }),
            True);
}

TEST_F(DeviceNamespace, ProtectsWhatIsMountedInAVisibleDirectoryToo) {
  fs::create_directories("/tmp/build/mounted");
  ASSERT_EQ(mount("tmpfs", "/tmp/build/mounted", "tmpfs", 0, nullptr), 0);
  writeFile("/tmp/build/mounted/file", "x");

  EXPECT_EQ(inChild([] {
              sandbox::enterDevice({"", {"/tmp/build"}});
              return isProtected("/tmp/build/mounted", "file");
            }),
            True);

  umount("/tmp/build/mounted");
}

TEST_F(DeviceNamespace, ProtectsADirectoryOfTheHostThatTheDeviceDoesNotChange) {
  writeFile("/other/directory/file", "x");

  EXPECT_EQ(inChild([] {
              sandbox::enterDevice({});
              return isProtected("/other/directory", "file");
            }),
            True);

  EXPECT_EQ(readFile("/other/directory/file"), "x");
  fs::remove_all("/other");
}

TEST_F(DeviceNamespace, ProtectsAFileOfTheHostsRootDirectory) {
  writeFile("/file-at-the-top", "x");

  EXPECT_EQ(inChild([] {
              sandbox::enterDevice({});
              return open("/file-at-the-top", O_WRONLY) < 0 && errno == EROFS;
            }),
            True);

  fs::remove("/file-at-the-top");
}

// With what they have already, so that nothing changes where they are not protected.
bool isModeProtected(const char* directory) {
  struct stat status = {};
  return stat(directory, &status) == 0 && chmod(directory, status.st_mode & 07777) != 0 && errno == EROFS;
}

TEST_F(DeviceNamespace, ProtectsTheKernelsSettingsAndDevices) {
  EXPECT_EQ(inChild([] {
              sandbox::enterDevice({});
              // An ordinary user is refused sooner.
              const auto refused = [](const char* path) {
                return open(path, O_WRONLY) < 0 && (errno == EROFS || errno == EACCES);
              };
              return refused("/proc/sys/kernel/panic") &&
                     (!exists("/proc/sysrq-trigger") || refused("/proc/sysrq-trigger")) &&
                     isModeProtected("/dev") && isModeProtected("/sys");
            }),
            True);
}

TEST_F(DeviceNamespace, ShowsWhatTheHostHasElsewhere) {
  writeFile("/etc/of-the-host", "x");
  writeFile("/usr/share/of-the-host", "y");

  const int shown = inChild([] {
    sandbox::enterDevice({});
    return readFile("/etc/of-the-host") == "x" && readFile("/usr/share/of-the-host") == "y";
  });

  EXPECT_EQ(shown, True);
  fs::remove("/etc/of-the-host");
  fs::remove("/usr/share/of-the-host");
}

TEST_F(DeviceNamespace, LeavesAProcessItsOwnFilesOfTheKernel) {
  EXPECT_EQ(inChild([] {
              sandbox::enterDevice({});
              writeFile("/proc/self/comm", "renamed");
              writeFile("/dev/null", "lost");
              return readFile("/proc/self/comm") == "renamed\n";
            }),
            True);
}

TEST_F(DeviceNamespace, LetsAProgramWriteBelowALayerInMemory) {
  fs::create_directories("/opt/programs");
  writeFile("/opt/programs/program", "x");

  EXPECT_EQ(inChild([] {
              unmountBelow("/opt");
              sandbox::enterDevice({"", {"/opt/programs"}});
              fs::remove("/opt/programs/program");
              writeFile("/opt/programs/other", "x");
              return !exists("/opt/programs/program");
            }),
            True);

  EXPECT_EQ(readFile("/opt/programs/program"), "x");
  EXPECT_FALSE(exists("/opt/programs/other"));
  fs::remove_all("/opt/programs");
}

TEST_F(DeviceNamespace, LetsAWritablePathReachTheHost) {
  writeFile("/tmp/build/of the host/program", "x");

  const int visible = inChild([] {
    sandbox::enterDevice({"", {"/tmp/build"}, {}, {"/tmp/build/of the host/", "/tmp/not-there"}});
    writeFile("/tmp/build/of the host/result", "y");
    return exists("/tmp/build/of the host/program") && !exists("/tmp/not-there");
  });

  EXPECT_EQ(visible, True);
  EXPECT_EQ(readFile("/tmp/build/of the host/result"), "y");
}

TEST_F(DeviceNamespace, KeepsAVisibleFileAtItsOwnPath) {
  writeFile("/run/program", "x");

  EXPECT_EQ(inChild([] {
              sandbox::enterDevice({"", {"/run/program"}});
              return readFile("/run/program") == "x";
            }),
            True);
}

TEST_F(DeviceNamespace, KeepsAVisibleFileInADirectoryThatTheDeviceLacks) {
  writeFile("/run/of the host/programs/program", "x");

  EXPECT_EQ(inChild([] {
              sandbox::enterDevice({"", {"/run/of the host/programs/program"}});
              return readFile("/run/of the host/programs/program") == "x";
            }),
            True);
}

TEST_F(DeviceNamespace, KeepsAVisiblePathThatALinkLeadsTo) {
  writeFile("/tmp/real/program", "x");
  fs::create_directory_symlink("/tmp/real", "/tmp/link");

  EXPECT_EQ(inChild([] {
              sandbox::enterDevice({"", {"/tmp/link"}});
              return exists("/tmp/real/program") && exists("/tmp/link/program");
            }),
            True);
}

TEST_F(DeviceNamespace, KeepsItsOwnPlaceWhenAVisiblePathContainsIt) {
  writeFile("/tmp/of-the-host", "x");

  EXPECT_EQ(inChild([] {
              sandbox::enterDevice({"", {"/tmp", "/", "/usr"}, {}, {"/tmp", "/", "/usr"}});
              return fs::is_empty("/tmp");
            }),
            True);
}

TEST_F(DeviceNamespace, WritesToAWritableDirectoryBelowALayerReachTheHost) {
  fs::create_directories("/opt/build");

  ASSERT_EQ(inChild([] {
              unmountBelow("/opt");
              sandbox::enterDevice({"", {}, {}, {"/opt/build"}});
              writeFile("/opt/build/result", "x");
              writeFile("/opt/other", "x");
              return true;
            }),
            True);

  EXPECT_TRUE(exists("/opt/build/result"));
  EXPECT_FALSE(exists("/opt/other"));
  fs::remove_all("/opt/build");
}

TEST_F(DeviceNamespace, WritesToAWritableFileBelowALayerReachTheHost) {
  writeFile("/opt/result", "");

  ASSERT_EQ(inChild([] {
              unmountBelow("/opt");
              sandbox::enterDevice({"", {}, {}, {"/opt/result"}});
              writeFile("/opt/result", "x");
              return true;
            }),
            True);

  EXPECT_EQ(readFile("/opt/result"), "x");
  fs::remove("/opt/result");
}

TEST_F(DeviceNamespace, TakesTheHostsRootAway) {
  EXPECT_EQ(inChild([] {
              sandbox::enterDevice({});
              for (const auto& point : base::mountPoints()) {
                if (base::isWithin(point, "/.host")) {
                  return false;
                }
              }
              return !exists("/.host");
            }),
            True);
}

// The least that is a root file system.
std::string makeSystem() {
  const std::string system = "/var/other-system";
  for (const char* place : {"/proc", "/sys", "/dev", "/tmp", "/usr/lib", "/etc"}) {
    fs::create_directories(system + place);
  }
  DeviceTest::writeFile(system + "/etc/name", "other system");
  return system;
}

TEST_F(DeviceNamespace, StandsOnAnotherSystemWhenToldSo) {
  const auto system = makeSystem();

  const int stands = inChild([&] {
    sandbox::enterDevice({directory, {}, system});
    writeFile("/etc/written", "x");
    writeFile("/prd/state", "x");
    return readFile("/etc/name") == "other system" && !exists("/bin") && exists("/proc/self/mounts") &&
           exists("/dev/null");
  });

  EXPECT_EQ(stands, True);
  EXPECT_FALSE(exists(system + "/etc/written"));
  EXPECT_FALSE(exists(system + "/prd"));
  EXPECT_TRUE(exists(directory + "/prd/state"));
  fs::remove_all(system);
}

TEST_F(DeviceNamespace, TakesTheHostsRootAwayFromAnotherSystemToo) {
  const auto system = makeSystem();

  const int gone = inChild([&] {
    sandbox::enterDevice({"", {}, system});
    for (const auto& point : base::mountPoints()) {
      if (point.find(".host") != std::string::npos) {
        return false;
      }
    }
    return fs::is_empty("/tmp") && !exists("/.host");
  });

  EXPECT_EQ(gone, True);
  fs::remove_all(system);
}

TEST_F(DeviceNamespace, ShowsPathsOfTheHostOnAnotherSystem) {
  const auto system = makeSystem();
  fs::create_directories("/opt/shown");
  writeFile("/opt/shown/file", "of the host");

  EXPECT_EQ(inChild([&] {
              sandbox::enterDevice({"", {"/opt/shown"}, system});
              return readFile("/opt/shown/file") == "of the host";
            }),
            True);

  fs::remove_all("/opt/shown");
  fs::remove_all(system);
}

TEST_F(DeviceNamespace, ShowsPathsOfTheHostBelowADirectoryThatTheOtherSystemHasToo) {
  const auto system = makeSystem();
  writeFile(system + "/both/own", "of the other system");
  writeFile("/both/host/file", "of the host");
  writeFile("/both/written", "of the host");

  EXPECT_EQ(inChild([&] {
              sandbox::enterDevice({"", {"/both/host"}, system, {"/both/written"}});
              writeFile("/both/written", "on the device");
              return readFile("/both/host/file") == "of the host" &&
                     readFile("/both/own") == "of the other system";
            }),
            True);

  EXPECT_EQ(readFile("/both/written"), "on the device");
  EXPECT_FALSE(exists(system + "/both/host"));
  fs::remove_all("/both");
  fs::remove_all(system);
}

TEST_F(DeviceNamespace, RefusesASystemWithoutAPlaceForTheKernels) {
  const auto system = makeSystem();
  fs::remove(system + "/sys");

  EXPECT_EQ(inChild([&] {
              try {
                sandbox::enterDevice({"", {}, system});
              } catch (const std::runtime_error& refused) {
                return std::string(refused.what()) ==
                       system + " is no root file system: it has no directory /sys";
              }
              return false;
            }),
            True);

  fs::remove_all(system);
}

TEST_F(DeviceNamespace, ShowsWhatTheHostHasMountedInADirectoryThatItChanges) {
  fs::create_directories("/opt/mounted");
  ASSERT_EQ(mount("tmpfs", "/opt/mounted", "tmpfs", 0, nullptr), 0);
  writeFile("/opt/mounted/file", "x");

  EXPECT_EQ(inChild([] {
              sandbox::enterDevice({});
              writeFile("/opt/media/file", "x");
              return exists("/opt/mounted/file");
            }),
            True);

  umount("/opt/mounted");
  fs::remove("/opt/mounted");
}

TEST_F(DeviceNamespace, KeepsTheWorkingDirectoryThatIsStillThere) {
  const int kept = inChild([] {
    fs::current_path("/etc");
    sandbox::enterDevice({});
    return fs::current_path() == "/etc";
  });

  EXPECT_EQ(kept, True);
}

TEST_F(DeviceNamespace, StartsAtTheRootWhenTheWorkingDirectoryIsHidden) {
  const int moved = inChild([this] {
    fs::current_path(directory);
    sandbox::enterDevice({});
    return fs::current_path() == "/";
  });

  EXPECT_EQ(moved, True);
}

TEST_F(DeviceNamespace, TakesADirectoryNamedFromTheWorkingDirectory) {
  fs::create_directories("/opt/devices/one");

  ASSERT_EQ(inChild([] {
              fs::current_path("/opt/devices");
              sandbox::enterDevice({"one", {}});
              writeFile("/prd/state", "x");
              return true;
            }),
            True);

  EXPECT_TRUE(exists("/opt/devices/one/prd/state"));
  fs::remove_all("/opt/devices");
}

TEST_F(DeviceNamespace, LeavesTheUmaskAsItWas) {
  EXPECT_EQ(inChild([] {
              umask(0137);
              sandbox::enterDevice({});
              return umask(0) == 0137;
            }),
            True);
}

TEST_F(DeviceNamespace, RefusesADirectoryThatIsNotThere) {
  EXPECT_EQ(inChild([] {
              try {
                sandbox::enterDevice({"/tmp/no-such-device", {}});
              } catch (const std::system_error& refused) {
                return std::string(refused.what()).find("/tmp/no-such-device") != std::string::npos;
              }
              return false;
            }),
            True);
}

TEST_F(DeviceNamespace, RefusesADirectoryFromWhichALinkLeadsOut) {
  for (const std::string place : {"/tmp", "/prd", "/lib/firmware/ext"}) {
    fs::remove_all("/opt/devices");
    writeFile("/opt/precious/file", "x");
    fs::create_directories("/opt/devices/one" + fs::path(place).parent_path().string());
    fs::create_directory_symlink("/opt/precious", "/opt/devices/one" + place);

    EXPECT_EQ(inChild([&] {
                try {
                  sandbox::enterDevice({"/opt/devices/one", {}});
                } catch (const std::system_error& refused) {
                  return std::string(refused.what())
                             .find("a link at /opt/devices/one" + place +
                                   " leads out of /opt/devices/one; remove the link") == 0;
                }
                return false;
              }),
              True)
        << place;
    EXPECT_EQ(std::distance(fs::directory_iterator("/opt/precious"), fs::directory_iterator()), 1);
  }
  fs::remove_all("/opt/devices");
  fs::remove_all("/opt/precious");
}

TEST_F(DeviceNamespace, RefusesAVerifierLibraryThatALinkOfTheDirectoryLeadsOutTo) {
  writeFile("/opt/library", "of the host");
  fs::create_directories(directory + "/usr/lib");
  fs::create_symlink("/opt/library", directory + sandbox::kVerifierLibrary);

  EXPECT_EQ(inChild([this] {
              sandbox::enterDevice({directory, {}});
              return true;
            }),
            Threw);

  fs::remove("/opt/library");
}

TEST_F(DeviceNamespace, RefusesAProcessWithSeveralThreads) {
  EXPECT_EQ(inChild([] {
              std::thread([] {}).join();
              int release[2] = {};
              if (pipe(release) != 0) {
                return false;
              }
              std::thread other([&] {
                char byte = 0;
                while (read(release[0], &byte, 1) > 0) {
                }
              });
              bool refused = false;
              try {
                sandbox::enterDevice({});
              } catch (const std::runtime_error& error) {
                refused = std::string(error.what()).find("one thread") != std::string::npos;
              }
              close(release[1]);
              other.join();
              return refused;
            }),
            True);
}

TEST_F(DeviceNamespace, KnowsWhetherItIsInside) {
  EXPECT_TRUE(sandbox::insideDevice());
}

}  // namespace
