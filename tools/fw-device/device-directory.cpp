#include "device-directory.h"

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <system_error>

#include "device-layout.h"
#include "exit-code.h"

namespace fwdevice {
namespace fs = std::filesystem;
namespace {

constexpr char kMarker[] = "/.fw-device";

bool isDevice(const std::string& directory) {
  std::error_code unreadable;
  return fs::is_regular_file(directory + kMarker, unreadable);
}

void writeMarker(const std::string& directory, const DeviceSystem& system) {
  std::ofstream marker(directory + kMarker);
  marker << "This directory holds a device; see fw-device --help.\n" << systemText(system);
  if (!marker.flush()) {
    throw std::system_error(errno, std::generic_category(), "cannot write " + directory + kMarker);
  }
}

void requireNewOrEmpty(const std::string& directory) {
  if (fs::exists(directory) && !fs::is_directory(directory)) {
    throw Failure(ExitCode::NoDevice, directory + " is no directory; name a new one");
  }
  if (fs::exists(directory) && !fs::is_empty(directory)) {
    throw Failure(ExitCode::NoDevice, directory + " is not empty and no device; name a new directory");
  }
}

}  // namespace

DeviceSystem makeDeviceDirectory(const std::string& directory, const DeviceSystem& wanted) {
  if (!isDevice(directory)) {
    requireNewOrEmpty(directory);
  }
  const auto system = chooseSystem(wanted, deviceSystem(directory));
  fs::create_directories(directory);
  writeMarker(directory, system);
  sandbox::createDeviceDirectories(directory);
  return system;
}

std::string requireDeviceDirectory(const std::string& directory) {
  if (!isDevice(directory)) {
    throw Failure(ExitCode::NoDevice,
                  directory + " is no device; run fw-device init " + directory + " first");
  }
  return fs::canonical(directory);
}

DeviceSystem deviceSystem(const std::string& directory) {
  std::ifstream marker(directory + kMarker);
  return parseSystem({std::istreambuf_iterator<char>(marker), std::istreambuf_iterator<char>()});
}

}  // namespace fwdevice
