// SPDX-License-Identifier: Apache-2.0
#include "device-namespace.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <iterator>
#include <optional>
#include <stdexcept>
#include <system_error>
#include <utility>

#include "device-layout.h"
#include "device-root.h"
#include "directory-tree.h"
#include "file-descriptor.h"
#include "host-mounts.h"
#include "mount-table.h"
#include "system-error.h"

namespace sandbox {
namespace fs = std::filesystem;
namespace {

// In memory, hidden together with the host's root once the device is built.
constexpr char kScratch[] = "/tmp";
constexpr char kHostRoot[] = "/.host";
// What a root file system has no files of its own for.
constexpr const char* kKernelDirectories[] = {"/proc", "/sys", "/dev"};
constexpr char kNamespacesRefused[] =
    "this system lets an ordinary user make no private device; run as root, or allow user namespaces "
    "(sysctl user.max_user_namespaces above 0, kernel.unprivileged_userns_clone=1, "
    "kernel.apparmor_restrict_unprivileged_userns=0)";

struct HostPath {
  std::string path;
  base::FileDescriptor handle;
};

class Umask {
 public:
  explicit Umask(mode_t mask) : previous_(umask(mask)) {}
  Umask(const Umask&) = delete;
  Umask& operator=(const Umask&) = delete;
  ~Umask() { umask(previous_); }

 private:
  mode_t previous_;
};

bool& entered() {
  static bool value = false;
  return value;
}

void writeProcFile(const char* path, const std::string& text) {
  const base::FileDescriptor file(open(path, O_WRONLY | O_CLOEXEC));
  const auto length = static_cast<ssize_t>(text.size());
  if (!file || write(file.get(), text.data(), text.size()) != length) {
    base::throwErrno(std::string("cannot write ") + path + ": " + kNamespacesRefused);
  }
}

// Returns whether a user namespace was needed.
bool unshareNamespaces() {
  if (unshare(CLONE_NEWNS | CLONE_NEWIPC) == 0) {
    return false;
  }
  const auto user = std::to_string(geteuid());
  const auto group = std::to_string(getegid());
  if (errno != EPERM || unshare(CLONE_NEWUSER | CLONE_NEWNS | CLONE_NEWIPC) != 0) {
    base::throwErrno(kNamespacesRefused);
  }
  writeProcFile("/proc/self/setgroups", "deny");  // the kernel wants this before gid_map
  writeProcFile("/proc/self/uid_map", "0 " + user + " 1");
  writeProcFile("/proc/self/gid_map", "0 " + group + " 1");
  return true;
}

void mountMemory(const std::string& target) {
  if (mount("tmpfs", target.c_str(), "tmpfs", 0, "mode=0755") != 0) {
    base::throwErrno("cannot mount memory on " + target + " of the private namespace: " + kNamespacesRefused);
  }
}

void requireOneThread() {
  const auto threads = std::distance(fs::directory_iterator("/proc/self/task"), fs::directory_iterator());
  if (threads != 1) {
    throw std::runtime_error("only a process with one thread can enter a device; this one has " +
                             std::to_string(threads));
  }
}

HostPath openHostPath(const std::string& path) {
  return {path, base::FileDescriptor(open(path.c_str(), O_PATH | O_CLOEXEC))};
}

// To be called in the new namespace: it can only show what was opened there.
std::vector<HostPath> openVisiblePaths(const std::vector<std::string>& paths) {
  std::vector<HostPath> opened;
  for (const auto& path : paths) {
    std::error_code missing;
    const auto canonical = fs::canonical(path, missing).string();
    if (missing) {
      continue;
    }
    opened.push_back(openHostPath(canonical));
    auto literal = fs::absolute(path).lexically_normal().string();
    if (literal.size() > 1 && literal.back() == '/') {
      literal.pop_back();
    }
    if (literal != canonical) {
      opened.push_back(openHostPath(literal));
    }
  }
  return opened;
}

void createMountPoint(const std::string& path, bool isDirectory) {
  if (fs::exists(path)) {
    return;
  }
  if (isDirectory) {
    fs::create_directories(path);
    return;
  }
  fs::create_directories(fs::path(path).parent_path());
  const base::FileDescriptor file(open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644));
  if (!file) {
    base::throwErrno("cannot create the mount point " + path);
  }
}

// The old root directory is then below the directory previous.
void changeRoot(const std::string& root, const std::string& previous = "") {
  const auto hostRoot = root + previous + kHostRoot;
  fs::create_directory(hostRoot);
  if (syscall(SYS_pivot_root, root.c_str(), hostRoot.c_str()) != 0 || chdir("/") != 0) {
    base::throwErrno("cannot make the device's tree the root directory");
  }
}

void putInPlace(const base::FileDescriptor& source, const std::string& path) {
  showWritable(source.path(), path);
}

void bindDeviceDirectories(const DirectoryTree& device) {
  for (const auto& directory : kDeviceDirectories) {
    if (directory.place == Place::Own || directory.place == Place::OverHost) {
      putInPlace(device.make(directory.path, directory.mode), directory.path);
    }
  }
  fs::remove(kVerifierLibrary);  // the host's, if it has one
  if (const auto verifier = device.open(kVerifierLibrary, O_PATH); verifier) {
    createMountPoint(kVerifierLibrary, false);
    putInPlace(verifier, kVerifierLibrary);
  }
}

bool coversDevice(const std::string& path) {
  return path == "/" ||
         std::any_of(std::begin(kDeviceDirectories), std::end(kDeviceDirectories),
                     [&](const DeviceDirectory& directory) { return base::isWithin(directory.path, path); });
}

// Whether the device has a directory of its own where the host has this path.
bool isReplaced(const std::string& path) {
  return std::any_of(std::begin(kDeviceDirectories), std::end(kDeviceDirectories),
                     [&](const DeviceDirectory& directory) {
                       return directory.place != Place::Writable &&
                              (base::isWithin(path, directory.path) ||
                               base::isWithin(path, fs::weakly_canonical(directory.path)));
                     });
}

bool isDirectory(const HostPath& host) {
  struct stat status = {};
  return fstat(host.handle.get(), &status) == 0 && S_ISDIR(status.st_mode);
}

// What the device's root shows already is left alone: below a layer, what programs write
// there is to stay in memory.
void showVisible(const std::vector<HostPath>& paths, bool ofAnotherSystem) {
  for (const auto& host : paths) {
    if (host.handle && !coversDevice(host.path) && (ofAnotherSystem || isReplaced(host.path))) {
      createMountPoint(host.path, isDirectory(host));
      showReadOnly(host.handle.path(), host.path);
    }
  }
}

void showToWrite(const std::vector<HostPath>& paths) {
  for (const auto& host : paths) {
    if (host.handle && !coversDevice(host.path)) {
      createMountPoint(host.path, isDirectory(host));
      showWritable(host.handle.path(), host.path);
    }
  }
}

void leaveHostRoot() {
  if (umount2(kHostRoot, MNT_DETACH) != 0 || rmdir(kHostRoot) != 0) {
    base::throwErrno("cannot take the host's root directory out of the device");
  }
}

void restoreWorkingDirectory(const std::string& directory) {
  if ((directory.empty() || chdir(directory.c_str()) != 0) && chdir("/") != 0) {
    base::throwErrno("cannot enter the device's root directory");
  }
}

// To be called before anything is hidden.
std::optional<DirectoryTree> prepareDirectory(const std::string& directory) {
  if (directory.empty()) {
    return std::nullopt;
  }
  DirectoryTree tree(directory);
  requireOwnDevice(tree, directory);
  createDeviceDirectories(tree);
  return tree;
}

// To be called in the new namespace, for the same reason. What was looked at before must
// still be there.
std::optional<DirectoryTree> openAgain(const std::optional<DirectoryTree>& prepared,
                                       const std::string& directory) {
  if (!prepared) {
    return std::nullopt;
  }
  DirectoryTree tree(directory);
  if (!tree.isSame(*prepared)) {
    throw std::runtime_error("the device's directory " + directory + " was replaced meanwhile");
  }
  return tree;
}

// What holds the device's directories.
DirectoryTree openState(std::optional<DirectoryTree> directory, const std::string& scratch) {
  if (directory) {
    return std::move(*directory);
  }
  createDeviceDirectories(scratch + "/device");
  return DirectoryTree(scratch + "/device");
}

void requireDirectory(const std::string& root, const std::string& path) {
  if (!fs::is_directory(root + path)) {
    throw std::runtime_error(root + " is no root file system: it has no directory " + path);
  }
}

// From here on the host is that system; what was opened before stays usable.
void enterSystem(const std::string& root) {
  showWritable(root, root);  // only a mount point can become the root directory
  for (const std::string path : kKernelDirectories) {
    requireDirectory(root, path);
    showWritable(path, root + path);
  }
  requireDirectory(root, kScratch);
  mountMemory(root + kScratch);
  changeRoot(root, kScratch);
}

void keepMountsPrivate() {
  if (mount(nullptr, "/", "none", MS_REC | MS_PRIVATE, nullptr) != 0) {
    base::throwErrno(std::string("cannot keep the device's mounts to itself: ") + kNamespacesRefused);
  }
}

std::vector<std::string> writablePaths(const Device& device) {
  auto paths = device.keepWritable;
#ifdef SANDBOX_COUNTERS
  paths.emplace_back(SANDBOX_COUNTERS);
#endif
  return paths;
}

}  // namespace

void requireOwnDevice(const DirectoryTree& tree, const std::string& directory) {
  const auto owner = tree.owner();
  if (owner != geteuid() && owner != 0) {
    throw std::runtime_error(directory + " belongs to another user (uid " + std::to_string(owner) +
                             "), whose programs would run as you; make a device of your own");
  }
}

void enterDevice(const Device& device) {
  requireOneThread();
  const Umask mask(022);
  std::error_code unknown;
  const auto workingDirectory = fs::current_path(unknown).string();
  const auto prepared = prepareDirectory(device.directory);

  const bool ownUserNamespace = unshareNamespaces();
  keepMountsPrivate();
  auto directory = openAgain(prepared, device.directory);
  const auto visible = openVisiblePaths(device.keepVisible);
  const auto writable = openVisiblePaths(writablePaths(device));
  if (!device.root.empty()) {
    enterSystem(fs::canonical(device.root));
  }

  const std::string scratch = kScratch;
  const auto root = scratch + "/root";
  mountMemory(scratch);
  fs::create_directory(root);
  mountMemory(root);
  const auto state = openState(std::move(directory), scratch);
  DeviceRoot layers(scratch + "/layers", root, ownUserNamespace);
  for (const auto* paths : {&visible, &writable}) {
    for (const auto& host : *paths) {
      layers.makeRoomFor(host.path);
    }
  }
  layers.build();
  changeRoot(root);
  bindDeviceDirectories(state);
  showVisible(visible, !device.root.empty());
  showToWrite(writable);
  leaveHostRoot();
  restoreWorkingDirectory(workingDirectory);
  entered() = true;
}

bool insideDevice() {
  return entered();
}

std::string deviceIdentity() {
  return fs::read_symlink("/proc/self/ns/mnt");
}

bool goOnInDevice(const std::string& identity) {
  entered() = identity == deviceIdentity();
  return entered();
}

}  // namespace sandbox
