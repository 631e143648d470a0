// SPDX-License-Identifier: Apache-2.0
#include "initialise.h"

#include <fcntl.h>

#include <algorithm>
#include <cstddef>
#include <filesystem>
#include <iomanip>
#include <sstream>
#include <string>
#include <vector>

#include "device-directory.h"
#include "device-layout.h"
#include "directory-tree.h"
#include "firmware-image.h"
#include "outcome.h"
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
  throw Failure(Outcome::Failed,
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
  if (device.open(kDownloadConfiguration, O_PATH | O_NOFOLLOW)) {
    return;
  }
  device.write(kDownloadConfiguration,
               std::string("# Where fw-update download finds packages; https:// and http:// work too.\n") +
                   "url = file://" + kServer + "\n");
}

// What the device has now.
struct Contents {
  std::string device;
  DeviceSystem system;
  std::vector<std::string> modules;
  PackageSecurity security;
};

std::string textOf(const Contents& contents) {
  std::ostringstream text;
  text << "device   " << contents.device << "\n";
  if (!contents.system.root.empty()) {
    text << "root     " << contents.system.root << "\n";
  }
  if (!contents.system.build.empty()) {
    text << "build    " << contents.system.build << "\n";
  }
  for (const auto& module : contents.modules) {
    text << "module   " << module << "\n";
  }
  for (const auto& image : kExampleImages) {
    text << "image    " << std::left << std::setw(9) << image.firmwareName << image.version << "  "
         << image.directory << (image.corrupt ? "  (corrupt on purpose)" : "") << "\n";
  }
  for (const auto& package : kExamplePackages) {
    text << "package  " << std::left << std::setw(11) << package.empName << package.version << "  "
         << package.directory << "\n";
  }
  const auto& security = contents.security;
  text << "verifier " << (security.verifier.empty() ? "none: packages are not checked" : security.verifier)
       << "\n"
       << "keys     " << security.signingKey << "  (to sign packages with)\n"
       << "keys     " << security.packageKey << "  (to encrypt USB packages with)\n"
       << "next     fw-device run " << contents.device << " -- fw-update list\n";
  return text.str();
}

template <typename Example>
Json::Value describe(const Example& example, const char* name) {
  Json::Value described;
  described["name"] = name;
  described["firmware"] = example.firmwareName;
  described["version"] = example.version;
  described["directory"] = example.directory;
  return described;
}

Json::Value jsonOf(const Contents& contents) {
  Json::Value json;
  json["device"] = contents.device;
  json["root"] = contents.system.root;
  json["build"] = contents.system.build;
  json["verifier"] = contents.security.verifier;
  json["signingKey"] = contents.security.signingKey;
  json["packageKey"] = contents.security.packageKey;
  for (const auto& module : contents.modules) {
    json["modules"].append(module);
  }
  for (const auto& image : kExampleImages) {
    json["images"].append(describe(image, image.firmwareName));
    json["images"][json["images"].size() - 1]["corrupt"] = image.corrupt;
  }
  for (const auto& package : kExamplePackages) {
    json["packages"].append(describe(package, package.empName));
  }
  return json;
}

}  // namespace

frame::Report initialise(const Options& options) {
  const auto [device, system] = makeDeviceDirectory(options.directory, {options.root, options.build});
  if (options.fresh) {
    forgetState(device);
  }
  const auto programs = programDirectory(system);
  const auto security = installPackageSecurity(options.directory, device, programs);
  installImages(device);
  installPackages(device, security.signingKey);
  configureDownloads(device);
  const Contents contents = {options.directory, system, installModules(device, programs), security};
  frame::Report report(Outcome::Done);
  report.body = textOf(contents);
  report.details = jsonOf(contents);
  return report;
}

}  // namespace fwdevice
