#include "privileged/loop-mount.h"

#include <fcntl.h>
#include <libmount.h>
#include <linux/loop.h>
#include <sys/ioctl.h>

#include <cerrno>
#include <memory>

namespace fwplatform {
namespace {

struct FreeContext {
  void operator()(libmnt_context* context) const { mnt_free_context(context); }
};

using MountContext = std::unique_ptr<libmnt_context, FreeContext>;

// The errno value for a libmount result that is not 0.
int ErrorOf(libmnt_context* context, int status, int error) {
  if (mnt_context_syscall_called(context) == 1) {
    return mnt_context_get_syscall_errno(context);
  }
  if (status == -MNT_ERR_LOOPOVERLAP) {
    return EBUSY;
  }
  // libmount's own numbers lie above every errno value; errno has the reason.
  constexpr int kLowestLibmountError = 5000;
  if (status > -kLowestLibmountError && status < 0) {
    return -status;
  }
  return error == 0 ? EIO : error;
}

MountContext NewContext(const LoopMountRequest& request) {
  MountContext context(mnt_new_context());
  if (!context) {
    return context;
  }
  const char* options = request.noExec ? "ro,loop,nodev,nosuid,noexec" : "ro,loop,nodev,nosuid";
  const bool ready = mnt_context_set_source(context.get(), request.imagePath.c_str()) == 0 &&
                     mnt_context_set_target(context.get(), ProcPath(request.directory).c_str()) == 0 &&
                     mnt_context_set_options(context.get(), options) == 0 &&
                     // No other file system: their drivers trust an image more.
                     mnt_context_set_fstype(context.get(), "squashfs") == 0 &&
                     mnt_context_set_optsmode(context.get(), MNT_OMODE_NOTAB) == 0 &&
                     mnt_context_disable_helpers(context.get(), 1) == 0 &&
                     mnt_context_disable_mtab(context.get(), 1) == 0 &&
                     // The target stays the opened directory.
                     mnt_context_disable_canonicalize(context.get(), 1) == 0;
  if (!ready) {
    context.reset();
  }
  return context;
}

// libmount opens the image by its path. That it got the file that was checked is
// seen here, before the kernel reads a byte of it as a file system.
int CheckBackingFile(const char* device, const OpenedPath& image) {
  const UniqueFd loop(open(device, O_RDONLY | O_CLOEXEC));
  loop_info64 info = {};
  if (!loop || ioctl(loop.get(), LOOP_GET_STATUS64, &info) != 0) {
    return errno;
  }
  const bool same = info.lo_device == image.status.st_dev && info.lo_inode == image.status.st_ino;
  return same && (info.lo_flags & LO_FLAGS_READ_ONLY) != 0 ? 0 : EPERM;
}

}  // namespace

int MountLoop(const LoopMountRequest& request, std::string& device) {
  const MountContext context = NewContext(request);
  if (!context) {
    return ENOMEM;
  }
  errno = 0;
  if (const int status = mnt_context_prepare_mount(context.get()); status != 0) {
    return ErrorOf(context.get(), status, errno);
  }
  const char* source = mnt_context_get_source(context.get());
  device = source == nullptr ? "" : source;
  if (const int error = CheckBackingFile(device.c_str(), request.image); error != 0) {
    return error;
  }
  const int status = mnt_context_do_mount(context.get());
  return status == 0 ? 0 : ErrorOf(context.get(), status, errno);
}

}  // namespace fwplatform
