#include "initialise.h"

#include <fcntl.h>

#include <algorithm>
#include <cstddef>
#include <filesystem>
#include <iomanip>
#include <iostream>
#include <string>
#include <vector>

#include "device-directory.h"
#include "device-layout.h"
#include "directory-tree.h"
#include "firmware-image.h"
#include "package-image.h"
#include "package-security.h"
#include "tool-location.h"

namespace fwdevice {
namespace fs = std::filesystem;
using sandbox::DirectoryTree;
namespace {

constexpr char kControls[] = "/prd/usr/fwupdate/controls";

struct ExampleImage {
  const char* directory;
  const char* firmwareName;
  const char* version;
  std::size_t mebibytes;
  unsigned int expectedTimeSeconds;
  bool corrupt;
};

constexpr ExampleImage kExampleImages[] = {
    {"/lib/firmware/ext", "tunerfw", "2.0.0", 2, 10, false},
    {"/lib/firmware/ext", "panelfw", "2.1.1", 1, 10, true},  // shows how a bad image is refused
    {"/lib/firmware/ext", "remotefw", "1.1.0", 1, 10, false},
    {"/opt/usr/share/sbox", "panelfw", "2.1.0", 4, 20, false},
    {"/opt/media/USBDriveA", "wififw", "1.4.2", 3, 15, false},
};

struct ExamplePackage {
  const char* directory;
  const char* empName;
  const char* firmwareName;
  const char* version;
  std::size_t mebibytes;
  unsigned int expectedTimeSeconds;
};

// One that is there, and one that stands on the "server" for fw-update download.
constexpr char kServer[] = "/opt/media/packages";
constexpr ExamplePackage kExamplePackages[] = {
    {"/opt/usr/apps/appbinarymanager", "wifiempfw", "wififw", "1.5.0", 3, 15},
    {kServer, "tunerempfw", "tunerfw", "2.5.0", 2, 10},
};

constexpr char kDownloadConfiguration[] = "/etc/fw-update/download.conf";

// What a device forgets with --fresh.
constexpr const char* kState[] = {"/var/lib/fw-components", "/tmp", "/dev/shm", "/run"};

void forgetState(const DirectoryTree& device) {
  for (const char* directory : kState) {
    const auto opened = device.make(directory);
    for (const auto& entry : fs::directory_iterator(opened.path())) {
      fs::remove_all(entry.path());
    }
  }
  sandbox::createDeviceDirectories(device);
}

std::vector<std::string> installModules(const fs::path& from, const DirectoryTree& device) {
  std::vector<std::string> installed;
  if (!fs::is_directory(from)) {
    return installed;
  }
  const auto controls = device.make(kControls);
  for (const auto& entry : fs::directory_iterator(from)) {
    if (entry.path().extension() == ".so") {
      installLibrary(entry.path(), controls);
      installed.push_back(entry.path().filename());
    }
  }
  std::sort(installed.begin(), installed.end());
  return installed;
}

std::vector<std::string> installModules(const DirectoryTree& device, const std::string& programs) {
  std::string searched;
  for (const auto& directory : moduleDirectories(programs)) {
    auto installed = installModules(fs::path(directory), device);
    if (!installed.empty()) {
      return installed;
    }
    searched += (searched.empty() ? "" : ", ") + directory;
  }
  throw Failure(ExitCode::Failed,
                "no modules found (looked in " + searched + "); build them and run init again");
}

void installImages(const DirectoryTree& device) {
  for (const auto& image : kExampleImages) {
    const auto opened = device.make(image.directory);
    const auto directory = opened.path();
    device.make(std::string(image.directory) + "/" + image.firmwareName);  // says which link is in the way
    sandbox::writeFirmware(directory, image.firmwareName, image.version, image.mebibytes << 20U,
                           image.expectedTimeSeconds);
    if (image.corrupt) {
      sandbox::corruptFirmware(directory, image.firmwareName);
    }
  }
}

void installPackages(const DirectoryTree& device, const std::string& signingKey) {
  for (const auto& package : kExamplePackages) {
    const auto opened = device.make(package.directory);
    const auto directory = opened.path();
    sandbox::writePackage(directory, package.empName, package.firmwareName, package.version,
                          package.mebibytes << 20U, package.expectedTimeSeconds);
    signPackage(directory + "/" + package.empName + ".img", package.empName, package.version, signingKey);
  }
}

// The user's own stays.
void configureDownloads(const DirectoryTree& device) {
  if (device.open(kDownloadConfiguration, O_PATH | O_NOFOLLOW).valid()) {
    return;
  }
  device.write(kDownloadConfiguration,
               std::string("# Where fw-update download finds packages; https:// and http:// work too.\n") +
                   "url = file://" + kServer + "\n");
}

void reportSystem(const DeviceSystem& system) {
  if (!system.root.empty()) {
    std::cout << "root     " << system.root << "\n";
  }
  if (!system.build.empty()) {
    std::cout << "build    " << system.build << "\n";
  }
}

void report(const std::string& device, const DeviceSystem& system, const std::vector<std::string>& modules,
            const PackageSecurity& security) {
  std::cout << "device   " << device << "\n";
  reportSystem(system);
  for (const auto& module : modules) {
    std::cout << "module   " << module << "\n";
  }
  for (const auto& image : kExampleImages) {
    std::cout << "image    " << std::left << std::setw(9) << image.firmwareName << image.version << "  "
              << image.directory << (image.corrupt ? "  (corrupt on purpose)" : "") << "\n";
  }
  for (const auto& package : kExamplePackages) {
    std::cout << "package  " << std::left << std::setw(11) << package.empName << package.version << "  "
              << package.directory << "\n";
  }
  std::cout << "verifier "
            << (security.verifier.empty() ? "none: packages are not checked" : security.verifier) << "\n"
            << "keys     " << security.signingKey << "  (to sign packages with)\n"
            << "keys     " << security.packageKey << "  (to encrypt USB packages with)\n";
  std::cout << "next     fw-device run " << device << " -- fw-update list" << std::endl;
}

}  // namespace

ExitCode initialise(const CommandLine& line) {
  const auto [device, system] = makeDeviceDirectory(line.directory, line.system);
  if (line.fresh) {
    forgetState(device);
  }
  const auto programs = programDirectory(system);
  const auto security = installPackageSecurity(line.directory, device, programs);
  installImages(device);
  installPackages(device, security.signingKey);
  configureDownloads(device);
  const auto modules = installModules(device, programs);
  report(line.directory, system, modules, security);
  return ExitCode::Done;
}

}  // namespace fwdevice
