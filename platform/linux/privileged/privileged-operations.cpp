// SPDX-License-Identifier: Apache-2.0
#include "privileged/privileged-operations.h"

#include <fcntl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <cerrno>
#include <exception>

#include "privileged/detached-mount.h"
#include "privileged/loop-mount.h"
#include "privileged/squashfs-unpack.h"
#include "safe-path.h"
#include "system-error.h"

namespace fwplatform {
namespace {

constexpr unsigned kLoopMajor = 7;

// What became of a request: refused with a reason, or carried out with a result.
// text: for the log.
struct Outcome {
  bool refused = false;
  int result = 0;
  std::string text;
};

Outcome refused(std::string reason) {
  return {true, 0, std::move(reason)};
}

Outcome failed(int error, const std::string& what) {
  return {false, error, what + ": " + base::errnoText(error)};
}

Outcome done(std::string text) {
  return {false, 0, std::move(text)};
}

// True when the kernel's answer means that loop mounts are not to be had here, as
// inside of a user namespace: no control node, no loop nodes, no right to mount.
bool loopMountsAreMissing(int error) {
  for (const int missing : {EPERM, EACCES, ENOENT, ENXIO, ENODEV}) {
    if (error == missing) {
      return true;
    }
  }
  return false;
}

unsigned attributesOf(const MountRequest& request) {
  return MOUNT_ATTR_RDONLY | MOUNT_ATTR_NODEV | MOUNT_ATTR_NOSUID | (request.noExec ? MOUNT_ATTR_NOEXEC : 0U);
}

Outcome attachTo(const MountRequest& request, const OpenedPath& directory, const base::FileDescriptor& tree,
                 const std::string& what) {
  const int error = attach(tree, directory, kMountParent, request.directoryName);
  if (error == ESTALE) {
    return refused(request.directoryName + " was moved away meanwhile");
  }
  return error == 0 ? done(what) : failed(error, "mounting on " + request.directoryName);
}

Outcome mountOpened(const MountRequest& request, const OpenedPath& image, const OpenedPath& directory) {
  const std::string what = request.imageName + " on " + request.directoryName;
  base::FileDescriptor content;
  if (const int error = openForReading(image, content); error != 0) {
    return failed(error, "opening " + request.imageName);
  }
  base::FileDescriptor tree;
  std::string device;
  const int error = mountLoop(content, attributesOf(request), tree, device);
  if (error == 0) {
    return attachTo(request, directory, tree, "mounted " + what + " through " + device);
  }
  if (!isInUserNamespace() || !loopMountsAreMissing(error)) {
    return failed(error, "mount of " + what);
  }
  std::string reason;
  const int unpackError = unpackOnTmpfs(content, attributesOf(request), UnpackLimits(), tree, reason);
  if (unpackError != 0) {
    return failed(unpackError, "unpacking of " + what + " (" + reason + ")");
  }
  return attachTo(request, directory, tree,
                  "unpacked " + what +
                      " onto a read-only tmpfs, because the kernel refuses loop mounts here (" +
                      base::errnoText(error) + ")");
}

Outcome carryOut(const MountRequest& request) {
  OpenedPath image;
  if (const int error = openEntry(kPackageDirectory, request.imageName, image); error != 0) {
    return error == ELOOP ? refused("a symbolic link is in the way to " + request.imageName)
                          : failed(error, "opening " + request.imageName);
  }
  if (!S_ISREG(image.status.st_mode)) {
    return refused(request.imageName + " is not a regular file");
  }
  OpenedPath directory;
  if (const int error = openEntry(kMountParent, request.directoryName, directory); error != 0) {
    return error == ELOOP ? refused("a symbolic link is in the way to " + request.directoryName)
                          : failed(error, "opening " + request.directoryName);
  }
  if (!S_ISDIR(directory.status.st_mode)) {
    return failed(ENOTDIR, request.directoryName);
  }
  // One mount for each directory: stacked ones would hide each other.
  bool mounted = false;
  if (const int error = seeMountPoint(directory, mounted); error != 0) {
    return failed(error, "seeing whether " + request.directoryName + " is mounted");
  }
  if (mounted) {
    return failed(EBUSY, request.directoryName + " is mounted already");
  }
  return mountOpened(request, image, directory);
}

// The mode is set on the node itself: the process's file mode mask is shared by
// its threads, so it can't be changed here.
int setNodeMode(int devDirectory, const std::string& name, dev_t device) {
  OpenedPath node;
  if (const int error = openEntryAt(devDirectory, name, node); error != 0) {
    return error;
  }
  if (!S_ISBLK(node.status.st_mode) || node.status.st_rdev != device) {
    return EEXIST;
  }
  return chmod(node.fd.path().c_str(), 0660) == 0 ? 0 : errno;
}

Outcome carryOut(const MknodRequest& request) {
  const std::string name = "loop" + std::to_string(request.loopNumber);
  base::FileDescriptor devDirectory;
  if (const int error = openDirectory("/dev", devDirectory); error != 0) {
    return failed(error, "opening /dev");
  }
  const dev_t device = makedev(kLoopMajor, request.loopNumber);
  if (mknodat(devDirectory.get(), name.c_str(), S_IFBLK | 0660, device) != 0) {
    return failed(errno, "making /dev/" + name);
  }
  if (const int error = setNodeMode(devDirectory.get(), name, device); error != 0) {
    return failed(error, "setting the mode of /dev/" + name);
  }
  return done("made /dev/" + name);
}

Outcome carryOut(const UmountRequest& request) {
  base::FileDescriptor parent;
  if (const int error = openDirectory(kMountParent, parent); error != 0) {
    return error == ELOOP ? refused("a symbolic link is in the way to " + request.directoryName)
                          : failed(error, "opening " + std::string(kMountParent));
  }
  // By its parent, because an opened directory would keep its own mount busy.
  const std::string path = parent.path() + "/" + request.directoryName;
  if (umount2(path.c_str(), UMOUNT_NOFOLLOW) != 0) {
    return failed(errno, "unmount of " + request.directoryName);
  }
  return done("unmounted " + request.directoryName);
}

Outcome parseAndCarryOut(PrivilegedOperation operation, std::string_view text) {
  std::string refusal;
  const std::optional<PrivilegedRequest> request = parsePrivilegedRequest(operation, text, refusal);
  if (!request) {
    return refused(refusal);
  }
  return std::visit([](const auto& one) { return carryOut(one); }, *request);
}

}  // namespace

PrivilegedAnswer refusePrivilegedRequest(const PrivilegedCaller& caller, const std::string& what,
                                         const std::string& reason, const RequestLogger& log) {
  log(RequestEnd::Refused, caller, "refused " + what + " of " + describe(caller) + ": " + reason);
  return {-EPERM, 0};
}

PrivilegedAnswer answerPrivilegedRequest(PrivilegedOperation operation, std::string_view text,
                                         const PrivilegedCaller& caller, const RequestLogger& log) {
  try {
    const Outcome outcome = parseAndCarryOut(operation, text);
    if (outcome.refused) {
      return refusePrivilegedRequest(caller, nameOf(operation), outcome.text, log);
    }
    log(outcome.result == 0 ? RequestEnd::Done : RequestEnd::Failed, caller,
        outcome.text + " for " + describe(caller));
    return {0, outcome.result};
  } catch (const std::exception&) {
    return {0, ENOMEM};
  }
}

void takeBackPrivilegedRequest(PrivilegedOperation operation, std::string_view text,
                               const PrivilegedCaller& caller, const RequestLogger& log) {
  std::string refusal;
  const std::optional<PrivilegedRequest> request = parsePrivilegedRequest(operation, text, refusal);
  if (!request || !std::holds_alternative<MountRequest>(*request)) {
    return;
  }
  const Outcome outcome = carryOut(UmountRequest{std::get<MountRequest>(*request).directoryName});
  log(RequestEnd::Failed, caller, outcome.text + ", because the caller has gone: " + describe(caller));
}

}  // namespace fwplatform
