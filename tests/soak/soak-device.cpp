// SPDX-License-Identifier: Apache-2.0
#include "soak-device.h"

#include <sys/mount.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <random>
#include <stdexcept>

#include "firmware-image.h"
#include "package-image.h"
#include "usb-package.h"

namespace soak {
namespace {

namespace fs = std::filesystem;

constexpr const char* kControls = "/prd/usr/fwupdate/controls/";
constexpr const char* kFirmware = "/lib/firmware/ext/";
constexpr const char* kPackages = "/opt/usr/apps/appbinarymanager/";
constexpr const char* kPackageStore = "/opt/usr/share/sbox/";
constexpr std::size_t kImageBytes = 20000;
// Long enough that a machine under load does not run out of it by itself.
constexpr unsigned int kExpectedSeconds = 8;

void addModule(const std::string& library) {
  fs::copy_file(SOAK_MODULE, kControls + library + ".so");
}

void addImage(const std::string& library, unsigned int seconds) {
  sandbox::writeFirmware(kFirmware, library.substr(3), "2.0", kImageBytes, seconds);
}

std::string empName(int slot) {
  return packageModule(slot).substr(3) + "emp";
}

std::string usbPackage() {
  return usb::package("2.0", usb::noise(kImageBytes));
}

}  // namespace

const std::string& packageName() {
  static const std::string kName = [] {
    char text[32];
    std::snprintf(text, sizeof text, "soakpack%08x", std::random_device()());
    return std::string(text) + "n";
  }();
  return kName;
}

std::string packageModule(int slot) {
  return "lib" + packageName() + std::to_string(slot);
}

std::size_t usbPackageSize() {
  static const std::size_t kSize = usbPackage().size();
  return kSize;
}

void layOut(int slots) {
  for (int i = 0; i < kModules; ++i) {
    addModule("libsoak" + std::to_string(i));
    addImage("libsoak" + std::to_string(i), kExpectedSeconds);
  }
  addModule(kSlowModule);
  addImage(kSlowModule, 0);
  addModule(kProcedureModule);
  for (int slot = 0; slot < slots; ++slot) {
    addModule(packageModule(slot));
    sandbox::writePackage(kPackageStore, empName(slot), packageModule(slot).substr(3), "2.0", kImageBytes,
                          kExpectedSeconds);
  }
  fs::create_directories(kUsbDirectory);
  std::ofstream(kUsbDirectory + std::string("soak0.bin"), std::ios::binary) << usbPackage();
}

void putPackageImage(int slot) {
  const std::string name = empName(slot) + ".img";
  const std::string unfinished = kPackages + name + ".new";
  fs::copy_file(kPackageStore + name, unfinished, fs::copy_options::overwrite_existing);
  fs::rename(unfinished, kPackages + name);
}

}  // namespace soak
