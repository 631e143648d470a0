#include "isolation/child-process.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <string>
#include <system_error>
#include <vector>

#include "isolation/watched.h"

namespace tool {
namespace {

constexpr int kWatchedSignals[] = {SIGINT, SIGTERM, SIGHUP, SIGCHLD};
constexpr std::size_t kGreatestDatagram = std::size_t{256} * 1024;

[[noreturn]] void fail(const char* what) {
  throw std::system_error(errno, std::generic_category(), what);
}

// By its name, which the process list shows; by the link when the file was replaced.
std::string ownProgram() {
  char path[PATH_MAX];
  const ssize_t length = readlink("/proc/self/exe", path, sizeof path);
  const std::string name(path, length > 0 ? static_cast<std::size_t>(length) : 0);
  return !name.empty() && access(name.c_str(), X_OK) == 0 ? name : "/proc/self/exe";
}

}  // namespace

ChildCommand::ChildCommand(char** arguments) {
  sigset_t taken;
  sigemptyset(&taken);
  for (const int signal : kWatchedSignals) {
    sigaddset(&taken, signal);
  }
  signals_.reset(signalfd(-1, &taken, SFD_CLOEXEC | SFD_NONBLOCK));
  int ends[2] = {-1, -1};
  if (!signals_ || socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) != 0) {
    fail("socketpair");
  }
  channel_.reset(ends[0]);
  const fwplatform::UniqueFd channelEnd(ends[1]);
  sigprocmask(SIG_BLOCK, &taken, &maskBefore_);
  // A reader that goes away ends neither the child nor this process.
  struct sigaction ignore = {};
  ignore.sa_handler = SIG_IGN;
  sigaction(SIGPIPE, &ignore, &pipeBefore_);
  process_ = fork();
  if (process_ == 0) {
    become(arguments, channelEnd.get());
  }
  if (process_ < 0) {
    fail("fork");
  }
}

ChildCommand::~ChildCommand() {
  sigaction(SIGPIPE, &pipeBefore_, nullptr);
  sigprocmask(SIG_SETMASK, &maskBefore_, nullptr);
}

void ChildCommand::become(char** arguments, int channelEnd) const {
  sigaction(SIGPIPE, &pipeBefore_, nullptr);
  sigprocmask(SIG_SETMASK, &maskBefore_, nullptr);
  const int inherited = fcntl(channelEnd, F_DUPFD, 0);
  setenv(watched::kVariable, std::to_string(inherited).c_str(), 1);
  execv(ownProgram().c_str(), arguments);
  _exit(127);
}

void ChildCommand::wait(std::chrono::milliseconds atMost, const Events& events) {
  pollfd polled[] = {{channel_.get(), POLLIN, 0}, {signals_.get(), POLLIN, 0}};
  poll(polled, 2, static_cast<int>(atMost.count()));
  readSignals(events);
  // After the child's end there is nothing more to come than what is there now.
  readChannel(events);
}

void ChildCommand::readChannel(const Events& events) {
  std::vector<char> datagram(kGreatestDatagram);
  while (channel_) {
    const ssize_t length = recv(channel_.get(), datagram.data(), datagram.size(), MSG_DONTWAIT);
    if (length < 0 && errno == EINTR) {
      continue;
    }
    if (length == 0 || (length < 0 && errno != EAGAIN)) {
      channel_.reset();  // nobody tells anything any more
    }
    if (length <= 0) {
      return;
    }
    if (const auto told = fromDatagram({datagram.data(), static_cast<std::size_t>(length)})) {
      events.onTold(*told);
    }
  }
}

void ChildCommand::readSignals(const Events& events) {
  signalfd_siginfo info = {};
  while (read(signals_.get(), &info, sizeof info) == static_cast<ssize_t>(sizeof info)) {
    const int signal = static_cast<int>(info.ssi_signo);
    if (signal != SIGCHLD) {
      events.onSignal(signal, info.ssi_code == SI_KERNEL);
    }
  }
}

std::optional<int> ChildCommand::status() {
  int value = 0;
  if (!ended_ && waitpid(process_, &value, WNOHANG) == process_) {
    ended_ = value;
  }
  return ended_;
}

// Not when its number may be another's by now.
void ChildCommand::kill(int signal) {
  if (!status()) {
    ::kill(process_, signal);
  }
}

}  // namespace tool
