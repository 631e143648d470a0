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
#include "errno-text.h"
#include "own-rights.h"
#include "privileged/privileged-protocol.h"
#include "privileged/privileged-server.h"
#include "unique-fd.h"

namespace {

using fwplatform::ErrnoText;
using fwplatform::kPrivilegedSocketPath;
using fwplatform::UniqueFd;

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

bool Fail(const std::string& text) {
  std::cerr << "fw-privileged: " << text << std::endl;
  return false;
}

Options ParseOptions(int argc, char** argv) {
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
      Fail(std::string("no such option, or no value for it: \"") + argv[optind - 1] + "\"");
      options.exitCode = kExitUsage;
    }
  }
  if (optind < argc) {
    Fail(std::string("unexpected argument \"") + argv[optind] + "\"");
    options.exitCode = kExitUsage;
  }
  if (options.exitCode) {
    std::cerr << kUsage;
  }
  return options;
}

// The group whose members may ask. False when the named one does not exist.
bool FindGroup(const std::optional<std::string>& name, std::optional<gid_t>& group) {
  const struct group* const entry = getgrnam(name ? name->c_str() : kDefaultGroup);
  if (entry != nullptr) {
    group = entry->gr_gid;
    return true;
  }
  return !name || Fail("there is no group \"" + *name + "\"");
}

// How many sockets the service manager hands over to this process; negative when it
// does so in a way that can't be understood.
int HandedOverSockets() {
  return sd_listen_fds(1);
}

bool TakeHandedOver(int count, UniqueFd& listener) {
  if (count != 1 || sd_is_socket(SD_LISTEN_FDS_START, AF_UNIX, SOCK_SEQPACKET, 1) <= 0) {
    return Fail("the service manager must hand over one listening Unix sequenced-packet socket");
  }
  listener.reset(SD_LISTEN_FDS_START);
  return true;
}

sockaddr_un SocketAddress() {
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  std::memcpy(address.sun_path, kPrivilegedSocketPath, sizeof kPrivilegedSocketPath);
  return address;
}

UniqueFd NewSocket() {
  return UniqueFd(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
}

// Removes a socket that a service which has ended left behind.
bool ClearSocketPath() {
  struct stat status = {};
  if (lstat(kPrivilegedSocketPath, &status) != 0) {
    return errno == ENOENT || Fail(std::string(kPrivilegedSocketPath) + ": " + ErrnoText(errno));
  }
  if (!S_ISSOCK(status.st_mode)) {
    return Fail(std::string(kPrivilegedSocketPath) + " is there already and is no socket");
  }
  const UniqueFd probe = NewSocket();
  const sockaddr_un address = SocketAddress();
  if (connect(probe.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0 ||
      errno != ECONNREFUSED) {
    return Fail(std::string("another service listens on ") + kPrivilegedSocketPath);
  }
  unlink(kPrivilegedSocketPath);
  return true;
}

// Everybody may connect: who may ask is decided by who the caller is, and a
// refusal gets into the log.
bool MakeListener(UniqueFd& listener) {
  if (!ClearSocketPath()) {
    return false;
  }
  listener = NewSocket();
  const sockaddr_un address = SocketAddress();
  if (!listener || bind(listener.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
      chmod(kPrivilegedSocketPath, 0666) != 0 || listen(listener.get(), SOMAXCONN) != 0) {
    return Fail(std::string("listening on ") + kPrivilegedSocketPath + ": " + ErrnoText(errno));
  }
  return true;
}

// Tells the service manager that the service is alive, as often as it wants to hear it.
fwplatform::Heartbeat HeartbeatForTheManager() {
  std::uint64_t microseconds = 0;
  if (sd_watchdog_enabled(1, &microseconds) <= 0) {
    return {};
  }
  const std::chrono::milliseconds patience(microseconds / 1000);
  return {std::max(patience / 2, std::chrono::milliseconds(1)), [] { sd_notify(0, "WATCHDOG=1"); }};
}

// Readable when the process is asked to end.
UniqueFd StopSignals() {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGTERM);
  sigaddset(&signals, SIGINT);
  sigprocmask(SIG_BLOCK, &signals, nullptr);
  return UniqueFd(signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK));
}

int Serve(const Options& options) {
  std::optional<gid_t> group;
  if (!FindGroup(options.group, group)) {
    return kExitFailure;
  }
  const int handedOver = HandedOverSockets();
  UniqueFd listener;
  if (handedOver != 0 ? !TakeHandedOver(handedOver, listener) : !MakeListener(listener)) {
    return kExitFailure;
  }
  const UniqueFd stop = StopSignals();
  if (!stop) {  // it could not be asked to end
    Fail("waiting for signals: " + ErrnoText(errno));
    return kExitFailure;
  }
  if (const int error = GiveUpOtherRights(); error != 0) {
    Fail("giving up rights that it does not need: " + ErrnoText(error));
    return kExitFailure;
  }
  sd_notify(0, "READY=1");
  __dlog_print(2, DLOG_INFO_PRIORITY, "FWUPDATE", "privileged: serving root%s",
               group ? (" and group " + std::to_string(*group)).c_str() : "");
  fwplatform::PrivilegedServer server(std::move(listener), group, HeartbeatForTheManager());
  const bool ended = server.Run(stop.get()) || Fail("waiting for requests: " + ErrnoText(errno));
  if (handedOver == 0) {
    unlink(kPrivilegedSocketPath);
  }
  return ended ? 0 : kExitFailure;
}

}  // namespace

int main(int argc, char** argv) {
  base::CleanStandardOutput();
  const Options options = ParseOptions(argc, argv);
  if (options.exitCode) {
    return *options.exitCode;
  }
  try {
    return Serve(options);
  } catch (const std::exception& error) {
    Fail(error.what());
    return kExitFailure;
  }
}
