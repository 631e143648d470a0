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
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>
#include <utility>

#include "dlog.h"
#include "errno-text.h"
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

Options ParseOptions(int argc, char** argv) {
  constexpr option kLong[] = {
      {"group", required_argument, nullptr, 'g'},
      {"help", no_argument, nullptr, 'h'},
      {},
  };
  Options options;
  for (int found = 0; (found = getopt_long(argc, argv, "h", kLong, nullptr)) != -1;) {
    if (found == 'g') {
      options.group = optarg;
    } else if (found == 'h') {
      std::fputs(kUsage, stdout);
      options.exitCode = 0;
      return options;
    } else {
      options.exitCode = kExitUsage;
    }
  }
  if (optind < argc) {
    std::fprintf(stderr, "fw-privileged: unexpected argument \"%s\"\n", argv[optind]);
    options.exitCode = kExitUsage;
  }
  if (options.exitCode) {
    std::fputs(kUsage, stderr);
  }
  return options;
}

bool Fail(const std::string& text) {
  std::fprintf(stderr, "fw-privileged: %s\n", text.c_str());
  return false;
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

// 0 for what is no number.
int NumberIn(std::string_view text) {
  int number = 0;
  const auto parsed = std::from_chars(text.data(), text.data() + text.size(), number);
  return parsed.ec == std::errc() && parsed.ptr == text.data() + text.size() ? number : 0;
}

// The variables of the service manager are for this process alone.
int HandedOverSockets() {
  const char* pid = std::getenv("LISTEN_PID");
  const char* count = std::getenv("LISTEN_FDS");
  const bool forThisProcess = pid != nullptr && std::to_string(getpid()) == pid;
  const int sockets = forThisProcess && count != nullptr ? NumberIn(count) : 0;
  unsetenv("LISTEN_PID");
  unsetenv("LISTEN_FDS");
  unsetenv("LISTEN_FDNAMES");
  return sockets;
}

int SocketOption(int socket, int name) {
  int value = -1;
  socklen_t size = sizeof value;
  return getsockopt(socket, SOL_SOCKET, name, &value, &size) == 0 ? value : -1;
}

bool IsListener(int socket) {
  return SocketOption(socket, SO_DOMAIN) == AF_UNIX && SocketOption(socket, SO_TYPE) == SOCK_SEQPACKET &&
         SocketOption(socket, SO_ACCEPTCONN) == 1;
}

bool TakeHandedOver(int count, UniqueFd& listener) {
  constexpr int kFirstHandedOver = 3;
  if (count != 1 || !IsListener(kFirstHandedOver)) {
    return Fail("the service manager must hand over one listening Unix sequenced-packet socket");
  }
  listener.reset(kFirstHandedOver);
  fcntl(listener.get(), F_SETFD, FD_CLOEXEC);
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
  if (handedOver > 0 ? !TakeHandedOver(handedOver, listener) : !MakeListener(listener)) {
    return kExitFailure;
  }
  const UniqueFd stop = StopSignals();
  if (!stop) {  // it could not be asked to end
    Fail("waiting for signals: " + ErrnoText(errno));
    return kExitFailure;
  }
  __dlog_print(2, DLOG_INFO_PRIORITY, "FWUPDATE", "privileged: serving root%s",
               group ? (" and group " + std::to_string(*group)).c_str() : "");
  fwplatform::PrivilegedServer server(std::move(listener), group);
  const bool ended = server.Run(stop.get()) || Fail("waiting for requests: " + ErrnoText(errno));
  if (handedOver == 0) {
    unlink(kPrivilegedSocketPath);
  }
  return ended ? 0 : kExitFailure;
}

}  // namespace

int main(int argc, char** argv) {
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
