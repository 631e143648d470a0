// SPDX-License-Identifier: Apache-2.0
// fw-privileged: does what needs privileges for the firmware update library's
// callers. Takes its socket from the service manager, or makes it.
#include <fcntl.h>
#include <getopt.h>
#include <grp.h>
#include <signal.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <systemd/sd-daemon.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <exception>
#include <iostream>
#include <optional>
#include <string>
#include <utility>

#include "clean-output.h"
#include "dlog.h"
#include "file-descriptor.h"
#include "own-rights.h"
#include "privileged-server.h"
#include "privileged/privileged-protocol.h"
#include "system-error.h"

namespace {

using base::errnoText;
using base::FileDescriptor;
using fwplatform::kPrivilegedSocketPath;

constexpr char kDefaultGroup[] = "fwupdate";
constexpr int kExitFailure = 1;
constexpr int kExitUsage = 2;

constexpr char kUsage[] =
    "Mounts and unmounts package images and makes loop nodes for the firmware update\n"
    "library. Listens on /run/fw-privileged.sock, or on the socket that the service\n"
    "manager hands over.\n"
    "Usage: fw-privileged [--group NAME]\n"
    "  --group NAME  Whose members may ask besides root; default: fwupdate\n"
    "  --help        Show this\n\n"
    "Messages go to syslog, or to stderr with FW_UPDATE_LOG=stderr.\n"
    "Example: FW_UPDATE_LOG=stderr fw-privileged --group fwupdate\n"
    "Exit codes: 0 ended by SIGTERM or SIGINT   1 could not serve   2 usage\n";

struct Options {
  std::optional<std::string> group;
  std::optional<int> exitCode;  // set when there is nothing to serve
};

bool fail(const std::string& text) {
  std::cerr << "fw-privileged: " << text << std::endl;
  return false;
}

Options parseOptions(int argc, char** argv) {
  constexpr option kLong[] = {
      {"group", required_argument, nullptr, 'g'},
      {"help", no_argument, nullptr, 'h'},
      {},
  };
  Options options;
  opterr = 0;  // getopt would write past the streams
  for (int found = 0; (found = getopt_long(argc, argv, "h", kLong, nullptr)) != -1;) {
    if (found == 'g') {
      options.group = optarg;
    } else if (found == 'h') {
      std::cout << kUsage;
      options.exitCode = 0;
      return options;
    } else {
      fail(std::string("no such option, or no value for it: \"") + argv[optind - 1] + "\"");
      options.exitCode = kExitUsage;
    }
  }
  if (optind < argc) {
    fail(std::string("unexpected argument \"") + argv[optind] + "\"");
    options.exitCode = kExitUsage;
  }
  if (options.exitCode) {
    std::cerr << kUsage;
  }
  return options;
}

// The group whose members may ask. False when the named one does not exist.
bool findGroup(const std::optional<std::string>& name, std::optional<gid_t>& group) {
  const struct group* const entry = getgrnam(name ? name->c_str() : kDefaultGroup);
  if (entry != nullptr) {
    group = entry->gr_gid;
    return true;
  }
  return !name || fail("there is no group \"" + *name + "\"");
}

// How many sockets the service manager hands over to this process; negative when it
// does so in a way that can't be understood.
int handedOverSockets() {
  return sd_listen_fds(1);
}

bool takeHandedOver(int count, FileDescriptor& listener) {
  if (count != 1 || sd_is_socket(SD_LISTEN_FDS_START, AF_UNIX, SOCK_SEQPACKET, 1) <= 0) {
    return fail("the service manager must hand over one listening Unix sequenced-packet socket");
  }
  listener.reset(SD_LISTEN_FDS_START);
  return true;
}

sockaddr_un socketAddress() {
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  std::memcpy(address.sun_path, kPrivilegedSocketPath, sizeof kPrivilegedSocketPath);
  return address;
}

FileDescriptor newSocket() {
  return FileDescriptor(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
}

// Removes a socket that a service which has ended left behind.
bool clearSocketPath() {
  struct stat status = {};
  if (lstat(kPrivilegedSocketPath, &status) != 0) {
    return errno == ENOENT || fail(std::string(kPrivilegedSocketPath) + ": " + errnoText(errno));
  }
  if (!S_ISSOCK(status.st_mode)) {
    return fail(std::string(kPrivilegedSocketPath) + " is there already and is no socket");
  }
  const FileDescriptor probe = newSocket();
  const sockaddr_un address = socketAddress();
  if (connect(probe.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0 ||
      errno != ECONNREFUSED) {
    return fail(std::string("another service listens on ") + kPrivilegedSocketPath);
  }
  unlink(kPrivilegedSocketPath);
  return true;
}

// Everybody may connect: who may ask is decided by who the caller is, and a
// refusal gets into the log.
bool makeListener(FileDescriptor& listener) {
  if (!clearSocketPath()) {
    return false;
  }
  listener = newSocket();
  const sockaddr_un address = socketAddress();
  if (!listener || bind(listener.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
      chmod(kPrivilegedSocketPath, 0666) != 0 || listen(listener.get(), SOMAXCONN) != 0) {
    return fail(std::string("listening on ") + kPrivilegedSocketPath + ": " + errnoText(errno));
  }
  return true;
}

// Tells the service manager that the service is alive, as often as it wants to hear it.
fwplatform::Heartbeat heartbeatForTheManager() {
  std::uint64_t microseconds = 0;
  if (sd_watchdog_enabled(1, &microseconds) <= 0) {
    return {};
  }
  const std::chrono::milliseconds patience(microseconds / 1000);
  return {std::max(patience / 2, std::chrono::milliseconds(1)), [] { sd_notify(0, "WATCHDOG=1"); }};
}

// Readable when the process is asked to end.
FileDescriptor stopSignals() {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGTERM);
  sigaddset(&signals, SIGINT);
  sigprocmask(SIG_BLOCK, &signals, nullptr);
  return FileDescriptor(signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK));
}

int serve(const Options& options) {
  std::optional<gid_t> group;
  if (!findGroup(options.group, group)) {
    return kExitFailure;
  }
  const int handedOver = handedOverSockets();
  FileDescriptor listener;
  if (handedOver != 0 ? !takeHandedOver(handedOver, listener) : !makeListener(listener)) {
    return kExitFailure;
  }
  const FileDescriptor stop = stopSignals();
  if (!stop) {  // it could not be asked to end
    fail("waiting for signals: " + errnoText(errno));
    return kExitFailure;
  }
  if (const int error = giveUpOtherRights(); error != 0) {
    fail("giving up rights that it does not need: " + errnoText(error));
    return kExitFailure;
  }
  sd_notify(0, "READY=1");
  __dlog_print(2, DLOG_INFO_PRIORITY, "FWUPDATE", "privileged: serving root%s",
               group ? (" and group " + std::to_string(*group)).c_str() : "");
  fwplatform::PrivilegedServer server(std::move(listener), group, heartbeatForTheManager());
  const bool ended = server.run(stop.get()) || fail("waiting for requests: " + errnoText(errno));
  if (handedOver == 0) {
    unlink(kPrivilegedSocketPath);
  }
  return ended ? 0 : kExitFailure;
}

}  // namespace

int main(int argc, char** argv) {
  base::cleanStandardOutput();
  const Options options = parseOptions(argc, argv);
  if (options.exitCode) {
    return *options.exitCode;
  }
  try {
    return serve(options);
  } catch (const std::exception& error) {
    fail(error.what());
    return kExitFailure;
  }
}
