#include "device-directory.h"

#include <cerrno>
#include <filesystem>
#include <fstream>
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

void writeMarker(const std::string& directory) {
  std::ofstream marker(directory + kMarker);
  marker << "This directory holds a device; see fw-device --help.\n";
  if (!marker.flush()) {
    throw std::system_error(errno, std::generic_category(), "cannot write " + directory + kMarker);
  }
}

}  // namespace

void makeDeviceDirectory(const std::string& directory) {
  if (!isDevice(directory)) {
    if (fs::exists(directory) && !fs::is_directory(directory)) {
      throw Failure(ExitCode::NoDevice, directory + " is no directory; name a new one");
    }
    if (fs::exists(directory) && !fs::is_empty(directory)) {
      throw Failure(ExitCode::NoDevice, directory + " is not empty and no device; name a new directory");
    }
    fs::create_directories(directory);
    writeMarker(directory);
  }
  sandbox::createDeviceDirectories(directory);
}

std::string requireDeviceDirectory(const std::string& directory) {
  if (!isDevice(directory)) {
    throw Failure(ExitCode::NoDevice,
                  directory + " is no device; run fw-device init " + directory + " first");
  }
  return fs::canonical(directory);
}

}  // namespace fwdevice
