// SPDX-License-Identifier: Apache-2.0
// A whole update of one large image, and the least that it can cost. Prints the
// seconds that it took.
// usage: bench-whole-update prepare DIRECTORY KIB   makes a device and its image there
//        bench-whole-update library DIRECTORY       updates the tuner on that device
//        bench-whole-update floor DIRECTORY         one read pass with the checksum, one
//                                                   copy of the image, one fsync
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <stdexcept>
#include <string>
#include <system_error>
#include <vector>

#include "device-layout.h"
#include "device-namespace.h"
#include "firmware-image.h"
#include "fw-update-control.h"
#include "fw-update-symbol.h"

namespace {
namespace fs = std::filesystem;

constexpr const char* kImages = "/lib/firmware/ext";
constexpr const char* kImage = "/lib/firmware/ext/tunerfw/tunerfw.bin";
constexpr const char* kFlash = "/var/lib/fw-components/tunerfw.flash";
constexpr const char* kCopy = "/floor.copy";
constexpr unsigned int kExpectedSeconds = 600;

void require(bool succeeded, const std::string& what) {
  if (!succeeded) {
    throw std::system_error(errno, std::generic_category(), what);
  }
}

void prepare(const std::string& device, std::size_t kibibytes) {
  sandbox::createDeviceDirectories(device);
  fs::copy_file(TUNER_MODULE, device + "/prd/usr/fwupdate/controls/libtuner.so");
  sandbox::writeFirmware(device + kImages, "tunerfw", "2.0.0", kibibytes * 1024, kExpectedSeconds);
}

double secondsOf(const std::function<void()>& work) {
  const auto start = std::chrono::steady_clock::now();
  work();
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

// From the first use of the facade, as a client makes it, to the result.
void updateTuner() {
  const int result = FWUpdateContorl::getInstance()->fw_update_from_upgrade_app("libtuner", "");
  if (result != 0) {
    throw std::runtime_error("the update failed: " + std::to_string(result));
  }
}

void checkAndCopy(const std::string& device) {
  constexpr std::size_t kBlockSize = std::size_t{64} * 1024;  // faster than more, which leaves the caches
  FWUpdateSymbol("").getBinaryCRC32(device + kImage);

  const int from = open((device + kImage).c_str(), O_RDONLY | O_CLOEXEC);
  const int to = open((device + kCopy).c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  require(from >= 0 && to >= 0, "cannot open the image and its copy");
  std::vector<char> block(kBlockSize);
  ssize_t size = 0;
  while ((size = read(from, block.data(), block.size())) > 0) {
    require(write(to, block.data(), static_cast<std::size_t>(size)) == size, "cannot write the copy");
  }
  require(size == 0 && fsync(to) == 0, "cannot copy");
  close(from);
  close(to);
}

double updateOnDevice(const std::string& device) {
  fs::remove(device + kFlash);  // so that an update is needed
  sandbox::enterDevice({device, {BUILD_TREE}});
  if (fs::exists(kFlash)) {
    throw std::runtime_error("the tuner is up to date already");
  }
  const double seconds = secondsOf(updateTuner);
  if (fs::file_size(kFlash) <= fs::file_size(kImage)) {
    throw std::runtime_error("the tuner was not updated");
  }
  return seconds;
}

double floorOf(const std::string& device) {
  fs::remove(device + kCopy);
  return secondsOf([&device] { checkAndCopy(device); });
}

}  // namespace

int main(int argc, char** argv) {
  const std::string work = argc > 2 ? argv[1] : "";
  if (work == "prepare" && argc == 4) {
    prepare(argv[2], std::strtoul(argv[3], nullptr, 10));
  } else if (work == "library" && argc == 3) {
    std::printf("%.6f\n", updateOnDevice(argv[2]));
  } else if (work == "floor" && argc == 3) {
    std::printf("%.6f\n", floorOf(argv[2]));
  } else {
    std::fputs("usage: bench-whole-update prepare|library|floor DIRECTORY [KIB]\n", stderr);
    return 2;
  }
  return 0;
}
