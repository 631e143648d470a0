// SPDX-License-Identifier: Apache-2.0
#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <fstream>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>

#include "checks.h"
#include "deadline.h"
#include "mount-table.h"
#include "privileged-service.h"

namespace conformance {
namespace {

namespace fs = std::filesystem;

constexpr int kCapacity = 1024;
// Where udev runs it has a look into each loop device, which goes with the last who has it open.
constexpr int kOthersLookMs = 5000;
constexpr unsigned int kLookAgainUs = 10000;
const char* const kPackages = "/opt/usr/apps/appbinarymanager/";

// A squashfs with one file, firmware.bin; made with the program, so that a set needs nothing to
// make one.
extern "C" const char fwPlatformCheckPackage[];
extern "C" const char fwPlatformCheckPackageEnd[];

// A package image and the directory to mount it on, both removed in the end.
class Package {
 public:
  Package() : name_("platformcheck" + std::to_string(getpid()) + "emp") {
    std::ofstream file(image(), std::ios::binary);
    if (!file.write(fwPlatformCheckPackage, fwPlatformCheckPackageEnd - fwPlatformCheckPackage).flush()) {
      throw std::runtime_error("cannot write " + image());
    }
    fs::create_directory(directory());
  }
  Package(const Package&) = delete;
  Package& operator=(const Package&) = delete;
  ~Package() {
    unmount();
    std::error_code ignored;
    fs::remove(directory(), ignored);
    fs::remove(image(), ignored);
  }

  std::string image() const { return kPackages + name_ + ".img"; }
  std::string directory() const { return std::string(kPackages) + "emps/" + name_; }

  // As the library asks: an empty text when both results are 0.
  std::string mount() const {
    int result = 0;
    const std::string text = "-o ro,loop,nodev,nosuid " + image() + " " + directory();
    std::string buffer = text;
    buffer.resize(kCapacity);
    return failure("PS_Mount", PS_Mount(buffer.c_str(), kCapacity, 0, &result), result);
  }

  // Nothing follows the directory's last character but what must not be read as
  // a part of it.
  std::string unmount() const {
    int result = 0;
    const std::string text = directory() + "/beyond";
    return failure("PS_Umount", PS_Umount(text.data(), static_cast<int>(directory().size()), 0, &result),
                   result);
  }

  // Nothing when nothing is mounted there.
  std::optional<base::Mount> mounted() const {
    for (const base::Mount& mount : base::mounts()) {
      if (mount.place == directory()) {
        return mount;
      }
    }
    return std::nullopt;
  }

 private:
  static std::string failure(const std::string& call, int status, int result) {
    if (status == 0 && result == 0) {
      return "";
    }
    return call + " returned " + std::to_string(status) + " with the result " + std::to_string(result);
  }

  std::string name_;
};

// Runs a check on a package, or says why none can be made here.
Finding withPackage(Finding (*check)(const Package&)) {
  std::unique_ptr<Package> package;
  try {
    package = std::make_unique<Package>();
  } catch (const std::exception& error) {
    return notChecked(std::string("no package can be made here: ") + error.what());
  }
  return check(*package);
}

Finding mountedReadOnly(const Package& package) {
  if (const std::string failed = package.mount(); !failed.empty()) {
    return broken(failed);
  }
  const std::optional<base::Mount> mount = package.mounted();
  if (!mount || !fs::exists(package.directory() + "/firmware.bin")) {
    return broken("the package's files are not in the directory");
  }
  for (const char* option : {"ro", "nodev", "nosuid"}) {
    if (!base::hasOption(mount->options, option)) {
      return broken(std::string("it is not mounted with ") + option);
    }
  }
  return kept();
}

Finding unmountedByLength(const Package& package) {
  if (const std::string failed = package.mount(); !failed.empty()) {
    return notChecked(failed);
  }
  if (const std::string failed = package.unmount(); !failed.empty()) {
    return broken(failed);
  }
  return package.mounted() ? broken("it is still mounted") : kept();
}

bool isLoopBehind(const std::string& image) {
  std::error_code ignored;
  for (const auto& device : fs::directory_iterator("/sys/block", ignored)) {
    std::string file;
    std::getline(std::ifstream(device.path() / "loop/backing_file"), file);
    if (file.size() >= image.size() && file.compare(file.size() - image.size(), image.size(), image) == 0) {
      return true;
    }
  }
  return false;
}

Finding detached(const Package& package) {
  if (const std::string failed = package.mount(); !failed.empty()) {
    return notChecked(failed);
  }
  if (!isLoopBehind(package.image())) {
    return notChecked("the package is mounted without a loop device that can be seen");
  }
  package.unmount();
  const base::Deadline deadline(kOthersLookMs);
  while (isLoopBehind(package.image())) {
    if (deadline.leftMs() == 0) {
      return broken("the loop device still has the image");
    }
    usleep(kLookAgainUs);
  }
  return kept();
}

}  // namespace

// What the platform for ordinary Linux answers a user for whom no service mounts.
bool isServiceMissing(int status) {
  return (status == -ENOENT || status == -ECONNREFUSED) && geteuid() != 0;
}

Finding serviceMissing() {
  return notChecked("no privileged service answers; start it: systemctl enable --now fw-privileged.socket");
}

Finding mountIsReadOnly() {
  return withPackage(mountedReadOnly);
}

Finding mountRefusesMissingImage() {
  int result = 0;
  char text[kCapacity];
  std::snprintf(text, sizeof(text), "-o ro,loop,nodev,nosuid %snone.img %semps/none", kPackages, kPackages);
  const int status = PS_Mount(text, kCapacity, 0, &result);
  if (isServiceMissing(status)) {
    return serviceMissing();
  }
  return status != 0 || result != 0 ? kept() : broken("it is said to be mounted");
}

Finding unmountTakesLength() {
  return withPackage(unmountedByLength);
}

Finding unmountDetachesLoopDevice() {
  return withPackage(detached);
}

// A node that is there already is no failure of the platform's.
Finding nodeTakesText() {
  int result = 0;
  char text[kCapacity] = "-m 0660 -Z * /dev/loop0  b 7 0";
  struct stat before = {};
  const bool wasThere = stat("/dev/loop0", &before) == 0;
  const int status = PS_Mknod(text, kCapacity, 0, &result);
  if (isServiceMissing(status)) {
    return serviceMissing();
  }
  if (status != 0) {
    return wasThere ? notChecked("/dev/loop0 is there, and the call returned " + std::to_string(status))
                    : broken("the call returned " + std::to_string(status));
  }
  struct stat after = {};
  return stat("/dev/loop0", &after) == 0 ? kept() : broken("there is no /dev/loop0 afterwards");
}

}  // namespace conformance
