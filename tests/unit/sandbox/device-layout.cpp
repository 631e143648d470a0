// SPDX-License-Identifier: Apache-2.0
#include "device-layout.h"

#include <fcntl.h>
#include <semaphore.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <vector>

#include "device-environment.h"
#include "device-namespace.h"
#include "mount-table.h"

namespace fs = std::filesystem;

namespace {

class DeviceLayout : public DeviceTest {};
class DeviceCleaning : public DeviceTest {};
class FileModes : public DeviceTest {};

long mountsAt(const std::string& path) {
  const auto points = base::mountPoints();
  return std::count(points.begin(), points.end(), path);
}

TEST_F(DeviceLayout, HasEveryDirectoryWithItsMode) {
  for (const auto& directory : sandbox::kDeviceDirectories) {
    struct stat status = {};

    ASSERT_EQ(stat(directory.path, &status), 0) << directory.path;

    EXPECT_TRUE(S_ISDIR(status.st_mode)) << directory.path;
    EXPECT_EQ(status.st_mode & 07777, directory.mode) << directory.path;
  }
}

TEST_F(DeviceLayout, TakesFilesAtEveryDirectory) {
  for (const auto& directory : sandbox::kDeviceDirectories) {
    const auto path = std::string(directory.path) + "/probe";

    writeFile(path, "x");

    EXPECT_EQ(readFile(path), "x");
    fs::remove(path);
  }
}

TEST_F(DeviceLayout, KeepsTheHostsSystemBesideTheDevice) {
  struct stat null = {};
  ASSERT_EQ(stat("/dev/null", &null), 0);

  EXPECT_EQ(readFile("/etc/passwd").substr(0, 5), "root:");
  EXPECT_EQ(null.st_rdev, makedev(1, 3));
  EXPECT_EQ(fs::read_symlink("/proc/self"), std::to_string(getpid()));
}

TEST_F(DeviceLayout, CreatesItsDirectoriesBelowAnotherRoot) {
  const std::string root = "/tmp/other";

  sandbox::createDeviceDirectories(root);

  for (const auto& directory : sandbox::kDeviceDirectories) {
    EXPECT_TRUE(fs::is_directory(root + directory.path)) << directory.path;
  }
}

TEST_F(DeviceLayout, LeavesTheModeOfADirectoryThatExists) {
  fs::create_directories("/tmp/other/prd");
  ASSERT_EQ(chmod("/tmp/other/prd", 0700), 0);

  sandbox::createDeviceDirectories("/tmp/other");

  EXPECT_EQ(fs::status("/tmp/other/prd").permissions(), fs::perms::owner_all);
}

TEST_F(DeviceCleaning, RemovesFilesFromEveryDirectory) {
  for (const auto& directory : sandbox::kDeviceDirectories) {
    if (directory.place != sandbox::Place::Writable) {
      writeFile(std::string(directory.path) + "/deeper/file", "x");
    }
  }
  writeFile(sandbox::kVerifierLibrary, "x");

  sandbox::clearDevice();

  for (const auto& directory : sandbox::kDeviceDirectories) {
    EXPECT_FALSE(exists(std::string(directory.path) + "/deeper")) << directory.path;
  }
  EXPECT_FALSE(exists(sandbox::kVerifierLibrary));
}

TEST_F(DeviceCleaning, RemovesSemaphores) {
  sem_t* semaphore = sem_open("/SEM_UPDATE_CONTROL", O_CREAT, 0600, 1U);
  ASSERT_NE(semaphore, SEM_FAILED);
  sem_close(semaphore);

  sandbox::clearDevice();

  EXPECT_EQ(sem_open("/SEM_UPDATE_CONTROL", 0), SEM_FAILED);
}

TEST_F(DeviceCleaning, UnmountsPackages) {
  const std::string package = "/opt/usr/apps/appbinarymanager/emps/tunerempfw";
  fs::create_directory(package);
  ASSERT_EQ(mount("tmpfs", package.c_str(), "tmpfs", 0, nullptr), 0);
  ASSERT_EQ(mount("tmpfs", package.c_str(), "tmpfs", 0, nullptr), 0);

  sandbox::clearDevice();

  EXPECT_EQ(mountsAt(package), 0);
  EXPECT_FALSE(exists(package));
}

TEST_F(DeviceCleaning, LeavesOtherMountPointsAndWhatTheyHold) {
  fs::create_directories("/tmp/kept/in ner");
  ASSERT_EQ(mount("tmpfs", "/tmp/kept/in ner", "tmpfs", 0, nullptr), 0);
  writeFile("/tmp/kept/in ner/file", "x");
  writeFile("/tmp/kept/sibling", "x");

  sandbox::clearDevice();

  EXPECT_TRUE(exists("/tmp/kept/in ner/file"));
  EXPECT_FALSE(exists("/tmp/kept/sibling"));
  umount("/tmp/kept/in ner");
}

TEST_F(DeviceCleaning, RemovesALinkAndNotWhatItLeadsTo) {
  writeFile("/outside-the-device/file", "x");
  fs::create_directory_symlink("/outside-the-device", "/tmp/link");

  sandbox::clearDevice();

  EXPECT_FALSE(exists("/tmp/link"));
  EXPECT_TRUE(exists("/outside-the-device/file"));
  fs::remove_all("/outside-the-device");
}

TEST_F(DeviceCleaning, RestoresTheModeOfADirectory) {
  ASSERT_EQ(chmod("/var/lib/fw-components", 0), 0);
  ASSERT_EQ(chmod("/tmp", 0700), 0);

  sandbox::clearDevice();

  EXPECT_EQ(static_cast<unsigned>(fs::status("/var/lib/fw-components").permissions()), 0755U);
  EXPECT_EQ(static_cast<unsigned>(fs::status("/tmp").permissions()), 01777U);
}

TEST_F(FileModes, BindWhileTheOverrideIsOff) {
  writeFile("/tmp/secret", "x");
  ASSERT_EQ(chmod("/tmp/secret", 0), 0);

  {
    const WithoutFileOverride modesBind;
    EXPECT_THROW(readFile("/tmp/secret"), std::runtime_error);
  }

  EXPECT_EQ(readFile("/tmp/secret"), "x");
}

}  // namespace
