#include "privileged/privileged-operations.h"

#include <fcntl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <cerrno>
#include <exception>

#include "errno-text.h"
#include "privileged/detached-mount.h"
#include "privileged/loop-mount.h"
#include "privileged/safe-path.h"
#include "privileged/squashfs-unpack.h"

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

Outcome Refused(std::string reason) {
  return {true, 0, std::move(reason)};
}

Outcome Failed(int error, const std::string& what) {
  return {false, error, what + ": " + ErrnoText(error)};
}

Outcome Done(std::string text) {
  return {false, 0, std::move(text)};
}

// True when the kernel's answer means that loop mounts are not to be had here, as
// inside of a user namespace: no control node, no loop nodes, no right to mount.
bool LoopMountsAreMissing(int error) {
  for (const int missing : {EPERM, EACCES, ENOENT, ENXIO, ENODEV}) {
    if (error == missing) {
      return true;
    }
  }
  return false;
}

unsigned AttributesOf(const MountRequest& request) {
  return MOUNT_ATTR_RDONLY | MOUNT_ATTR_NODEV | MOUNT_ATTR_NOSUID | (request.noExec ? MOUNT_ATTR_NOEXEC : 0U);
}

Outcome AttachTo(const MountRequest& request, const OpenedPath& directory, const UniqueFd& tree,
                 const std::string& done) {
  const int error = Attach(tree, directory, kMountParent, request.directoryName);
  if (error == ESTALE) {
    return Refused(request.directoryName + " was moved away meanwhile");
  }
  return error == 0 ? Done(done) : Failed(error, "mounting on " + request.directoryName);
}

Outcome MountOpened(const MountRequest& request, const OpenedPath& image, const OpenedPath& directory) {
  const std::string what = request.imageName + " on " + request.directoryName;
  UniqueFd content;
  if (const int error = OpenForReading(image, content); error != 0) {
    return Failed(error, "opening " + request.imageName);
  }
  UniqueFd tree;
  std::string device;
  const int error = MountLoop(content, AttributesOf(request), tree, device);
  if (error == 0) {
    return AttachTo(request, directory, tree, "mounted " + what + " through " + device);
  }
  if (!IsInUserNamespace() || !LoopMountsAreMissing(error)) {
    return Failed(error, "mount of " + what);
  }
  std::string reason;
  const int unpackError = UnpackOnTmpfs(content, AttributesOf(request), UnpackLimits(), tree, reason);
  if (unpackError != 0) {
    return Failed(unpackError, "unpacking of " + what + " (" + reason + ")");
  }
  return AttachTo(request, directory, tree,
                  "unpacked " + what +
                      " onto a read-only tmpfs, because the kernel refuses loop mounts here (" +
                      ErrnoText(error) + ")");
}

Outcome CarryOut(const MountRequest& request) {
  OpenedPath image;
  if (const int error = OpenEntry(kPackageDirectory, request.imageName, image); error != 0) {
    return error == ELOOP ? Refused("a symbolic link is in the way to " + request.imageName)
                          : Failed(error, "opening " + request.imageName);
  }
  if (!S_ISREG(image.status.st_mode)) {
    return Refused(request.imageName + " is not a regular file");
  }
  OpenedPath directory;
  if (const int error = OpenEntry(kMountParent, request.directoryName, directory); error != 0) {
    return error == ELOOP ? Refused("a symbolic link is in the way to " + request.directoryName)
                          : Failed(error, "opening " + request.directoryName);
  }
  if (!S_ISDIR(directory.status.st_mode)) {
    return Failed(ENOTDIR, request.directoryName);
  }
  // One mount for each directory: stacked ones would hide each other.
  bool mounted = false;
  if (const int error = SeeMountPoint(directory, mounted); error != 0) {
    return Failed(error, "seeing whether " + request.directoryName + " is mounted");
  }
  if (mounted) {
    return Failed(EBUSY, request.directoryName + " is mounted already");
  }
  return MountOpened(request, image, directory);
}

// The mode is set on the node itself: the process's file mode mask is shared by
// its threads, so it can't be changed here.
int SetNodeMode(int devDirectory, const std::string& name, dev_t device) {
  OpenedPath node;
  if (const int error = OpenEntryAt(devDirectory, name, node); error != 0) {
    return error;
  }
  if (!S_ISBLK(node.status.st_mode) || node.status.st_rdev != device) {
    return EEXIST;
  }
  return chmod(ProcPath(node).c_str(), 0660) == 0 ? 0 : errno;
}

Outcome CarryOut(const MknodRequest& request) {
  const std::string name = "loop" + std::to_string(request.loopNumber);
  UniqueFd devDirectory;
  if (const int error = OpenDirectory("/dev", devDirectory); error != 0) {
    return Failed(error, "opening /dev");
  }
  const dev_t device = makedev(kLoopMajor, request.loopNumber);
  if (mknodat(devDirectory.get(), name.c_str(), S_IFBLK | 0660, device) != 0) {
    return Failed(errno, "making /dev/" + name);
  }
  if (const int error = SetNodeMode(devDirectory.get(), name, device); error != 0) {
    return Failed(error, "setting the mode of /dev/" + name);
  }
  return Done("made /dev/" + name);
}

Outcome CarryOut(const UmountRequest& request) {
  UniqueFd parent;
  if (const int error = OpenDirectory(kMountParent, parent); error != 0) {
    return error == ELOOP ? Refused("a symbolic link is in the way to " + request.directoryName)
                          : Failed(error, "opening " + std::string(kMountParent));
  }
  // By its parent, because an opened directory would keep its own mount busy.
  const std::string path = ProcPath(parent.get()) + "/" + request.directoryName;
  if (umount2(path.c_str(), UMOUNT_NOFOLLOW) != 0) {
    return Failed(errno, "unmount of " + request.directoryName);
  }
  return Done("unmounted " + request.directoryName);
}

Outcome ParseAndCarryOut(PrivilegedOperation operation, std::string_view text) {
  std::string refusal;
  const std::optional<PrivilegedRequest> request = ParsePrivilegedRequest(operation, text, refusal);
  if (!request) {
    return Refused(refusal);
  }
  return std::visit([](const auto& one) { return CarryOut(one); }, *request);
}

}  // namespace

PrivilegedAnswer RefusePrivilegedRequest(const PrivilegedCaller& caller, const std::string& what,
                                         const std::string& reason, const RequestLogger& log) {
  log(RequestEnd::kRefused, caller, "refused " + what + " of " + Describe(caller) + ": " + reason);
  return {-EPERM, 0};
}

PrivilegedAnswer AnswerPrivilegedRequest(PrivilegedOperation operation, std::string_view text,
                                         const PrivilegedCaller& caller, const RequestLogger& log) {
  try {
    const Outcome outcome = ParseAndCarryOut(operation, text);
    if (outcome.refused) {
      return RefusePrivilegedRequest(caller, NameOf(operation), outcome.text, log);
    }
    log(outcome.result == 0 ? RequestEnd::kDone : RequestEnd::kFailed, caller,
        outcome.text + " for " + Describe(caller));
    return {0, outcome.result};
  } catch (const std::exception&) {
    return {0, ENOMEM};
  }
}

void TakeBackPrivilegedRequest(PrivilegedOperation operation, std::string_view text,
                               const PrivilegedCaller& caller, const RequestLogger& log) {
  std::string refusal;
  const std::optional<PrivilegedRequest> request = ParsePrivilegedRequest(operation, text, refusal);
  if (!request || !std::holds_alternative<MountRequest>(*request)) {
    return;
  }
  const Outcome outcome = CarryOut(UmountRequest{std::get<MountRequest>(*request).directoryName});
  log(RequestEnd::kFailed, caller, outcome.text + ", because the caller has gone: " + Describe(caller));
}

}  // namespace fwplatform
