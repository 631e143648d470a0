#include "privileged/privileged-operations.h"

#include <fcntl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <cerrno>
#include <exception>

#include "dlog.h"
#include "errno-text.h"
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

void Log(int priority, const std::string& text) {
  __dlog_print(2, priority, "FWUPDATE", "privileged: %s", text.c_str());
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

Outcome MountOpened(const MountRequest& request, const OpenedPath& image, const OpenedPath& directory) {
  const std::string what = request.imageName + " on " + request.directoryName;
  std::string device;
  const int error = MountLoop(
      {std::string(kPackageDirectory) + "/" + request.imageName, image, directory, request.noExec}, device);
  if (error == 0) {
    return Done("mounted " + what + " through " + device);
  }
  if (!IsInUserNamespace() || !LoopMountsAreMissing(error)) {
    return Failed(error, "mount of " + what);
  }
  std::string reason;
  const int unpackError = UnpackOnTmpfs(image, directory, request.noExec, reason);
  if (unpackError != 0) {
    return Failed(unpackError, "unpacking of " + what + " (" + reason + ")");
  }
  return Done("unpacked " + what + " onto a read-only tmpfs, because the kernel refuses loop mounts here (" +
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
  if (IsMountPoint(directory)) {
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

std::string Describe(const PrivilegedCaller& caller) {
  return "pid " + std::to_string(caller.pid) + ", uid " + std::to_string(caller.uid) + ", gid " +
         std::to_string(caller.gid);
}

PrivilegedAnswer RefusePrivilegedRequest(const PrivilegedCaller& caller, const std::string& what,
                                         const std::string& reason) {
  Log(DLOG_WARN_PRIORITY, "refused " + what + " of " + Describe(caller) + ": " + reason);
  return {-EPERM, 0};
}

PrivilegedAnswer AnswerPrivilegedRequest(PrivilegedOperation operation, std::string_view text,
                                         const PrivilegedCaller& caller) {
  try {
    const Outcome outcome = ParseAndCarryOut(operation, text);
    if (outcome.refused) {
      return RefusePrivilegedRequest(caller, NameOf(operation), outcome.text);
    }
    Log(outcome.result == 0 ? DLOG_INFO_PRIORITY : DLOG_WARN_PRIORITY,
        outcome.text + " for " + Describe(caller));
    return {0, outcome.result};
  } catch (const std::exception&) {
    return {0, ENOMEM};
  }
}

void TakeBackPrivilegedRequest(PrivilegedOperation operation, std::string_view text,
                               const PrivilegedCaller& caller) {
  std::string refusal;
  const std::optional<PrivilegedRequest> request = ParsePrivilegedRequest(operation, text, refusal);
  if (!request || !std::holds_alternative<MountRequest>(*request)) {
    return;
  }
  const Outcome outcome = CarryOut(UmountRequest{std::get<MountRequest>(*request).directoryName});
  Log(DLOG_WARN_PRIORITY, outcome.text + ", because the caller has gone: " + Describe(caller));
}

}  // namespace fwplatform
