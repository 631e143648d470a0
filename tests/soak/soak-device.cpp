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

constexpr const char* controls = "/prd/usr/fwupdate/controls/";
constexpr const char* firmware = "/lib/firmware/ext/";
constexpr const char* packages = "/opt/usr/apps/appbinarymanager/";
constexpr const char* packageStore = "/opt/usr/share/sbox/";
constexpr std::size_t imageBytes = 20000;
// Long enough that a machine under load does not run out of it by itself.
constexpr unsigned int expectedSeconds = 8;

void addModule(const std::string& library) {
  fs::copy_file(SOAK_MODULE, controls + library + ".so");
}

void addImage(const std::string& library, unsigned int seconds) {
  sandbox::writeFirmware(firmware, library.substr(3), "2.0", imageBytes, seconds);
}

std::string empName(int slot) {
  return packageModule(slot).substr(3) + "emp";
}

std::string usbPackage() {
  return usb::package("2.0", usb::noise(imageBytes));
}

}  // namespace

const std::string& packageName() {
  static const std::string name = [] {
    char text[32];
    std::snprintf(text, sizeof text, "soakpack%08x", std::random_device()());
    return std::string(text) + "n";
  }();
  return name;
}

std::string packageModule(int slot) {
  return "lib" + packageName() + std::to_string(slot);
}

std::size_t usbPackageSize() {
  static const std::size_t size = usbPackage().size();
  return size;
}

void layOut(int slots) {
  for (int i = 0; i < modules; ++i) {
    addModule("libsoak" + std::to_string(i));
    addImage("libsoak" + std::to_string(i), expectedSeconds);
  }
  addModule(slowModule);
  addImage(slowModule, 0);
  addModule(procedureModule);
  for (int slot = 0; slot < slots; ++slot) {
    addModule(packageModule(slot));
    sandbox::writePackage(packageStore, empName(slot), packageModule(slot).substr(3), "2.0", imageBytes,
                          expectedSeconds);
  }
  fs::create_directories(usbDirectory);
  std::ofstream(usbDirectory + std::string("soak0.bin"), std::ios::binary) << usbPackage();
}

void putPackageImage(int slot) {
  const std::string name = empName(slot) + ".img";
  const std::string unfinished = packages + name + ".new";
  fs::copy_file(packageStore + name, unfinished, fs::copy_options::overwrite_existing);
  fs::rename(unfinished, packages + name);
}

}  // namespace soak
