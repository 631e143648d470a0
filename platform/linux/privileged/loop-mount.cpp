// SPDX-License-Identifier: Apache-2.0
#include "privileged/loop-mount.h"

#include <fcntl.h>
#include <linux/loop.h>
#include <sys/ioctl.h>
#include <sys/stat.h>

#include <cerrno>

#include "privileged/detached-mount.h"

namespace fwplatform {
namespace {

constexpr char kControl[] = "/dev/loop-control";
// As many as a busy machine may take away from under this process, one after the other.
constexpr int kMostAttempts = 100;
constexpr int kMostNodes = 256;

struct LoopDevice {
  base::FileDescriptor fd;
  std::string path;
};

// Gives the device this file for as long as it is open or mounted. Which file it is, is
// not looked up again: the kernel takes the opened one.
int bind(int device, const base::FileDescriptor& image) {
  loop_config config = {};
  config.fd = static_cast<unsigned>(image.get());
  config.info.lo_flags = LO_FLAGS_READ_ONLY | LO_FLAGS_AUTOCLEAR;
  return ioctl(device, LOOP_CONFIGURE, &config) == 0 ? 0 : errno;
}

// 0, or an errno value: EBUSY when another process has the device, ENOENT when there is
// no such node.
int tryDevice(int number, const base::FileDescriptor& image, LoopDevice& device) {
  const std::string path = "/dev/loop" + std::to_string(number);
  base::FileDescriptor fd(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOFOLLOW));
  struct stat status = {};
  if (!fd || fstat(fd.get(), &status) != 0) {
    return errno == ELOOP || errno == ENXIO ? ENOENT : errno;
  }
  if (!S_ISBLK(status.st_mode)) {
    return ENOENT;
  }
  if (const int error = bind(fd.get(), image); error != 0) {
    return error;
  }
  device = {std::move(fd), path};
  return 0;
}

// For a /dev where the node of the device that the kernel would take is missing.
int takeAnyNode(const base::FileDescriptor& image, LoopDevice& device) {
  int error = ENOENT;
  for (int number = 0; number < kMostNodes; ++number) {
    const int status = tryDevice(number, image, device);
    if (status == 0) {
      return 0;
    }
    if (status != ENOENT) {
      error = status;
    }
  }
  return error;
}

int takeFreeDevice(const base::FileDescriptor& image, LoopDevice& device) {
  const base::FileDescriptor control(open(kControl, O_RDWR | O_CLOEXEC));
  if (!control) {
    return errno;
  }
  int error = EBUSY;
  for (int attempt = 0; attempt < kMostAttempts && error == EBUSY; ++attempt) {
    const int number = ioctl(control.get(), LOOP_CTL_GET_FREE);
    error = number < 0 ? errno : tryDevice(number, image, device);
  }
  return error == ENOENT ? takeAnyNode(image, device) : error;
}

}  // namespace

int mountLoop(const base::FileDescriptor& image, unsigned attributes, base::FileDescriptor& tree,
              std::string& device) {
  LoopDevice taken;
  if (const int error = takeFreeDevice(image, taken); error != 0) {
    return error;
  }
  device = taken.path;
  // No other file system: their drivers trust an image more.
  return mountDetached({"squashfs", {{"source", taken.path}, {"ro", ""}}, attributes}, tree);
}

}  // namespace fwplatform
