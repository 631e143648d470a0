// SPDX-License-Identifier: Apache-2.0
#include "service-process.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <utility>

#include "refused-calls.h"

namespace {

constexpr int kPatienceMs = 10000;

// False when a capability that is to go can't be dropped.
bool keepOnly(const std::vector<int>& capabilities) {
  for (int capability = 0; prctl(PR_CAPBSET_READ, capability) >= 0; ++capability) {
    const bool keep = std::count(capabilities.begin(), capabilities.end(), capability) != 0;
    if (!keep && prctl(PR_CAPBSET_DROP, capability) != 0) {
      return false;
    }
  }
  return prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0;
}

void limitDescriptors(unsigned count) {
  rlimit limit = {};
  getrlimit(RLIMIT_NOFILE, &limit);
  limit.rlim_cur = count;
  setrlimit(RLIMIT_NOFILE, &limit);
}

void handOver(int listener, int count) {
  // A copy first: dup2 of a descriptor onto itself would leave it to be closed.
  const int copy = fcntl(listener, F_DUPFD, 3 + count);
  for (int i = 0; i < count; ++i) {
    dup2(copy, 3 + i);
  }
  close(copy);
  setenv("LISTEN_FDS", std::to_string(count).c_str(), 1);
  setenv("LISTEN_PID", std::to_string(getpid()).c_str(), 1);
}

[[noreturn]] void runService(const ServiceStart& start, int log) {
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  setenv("FW_UPDATE_LOG", "stderr", 1);
  dup2(log, STDERR_FILENO);
  if (start.listener >= 0) {
    handOver(start.listener, start.handedOver);
  }
  for (const auto& [name, value] : start.environment) {
    setenv(name.c_str(), value == "PID" ? std::to_string(getpid()).c_str() : value.c_str(), 1);
  }
  if (start.descriptors != 0) {
    limitDescriptors(start.descriptors);
  }
  if (start.capabilities && !keepOnly(*start.capabilities)) {
    _exit(126);
  }
  if (!start.deniedCalls.empty() && !refuseCalls(start.deniedCalls, EPERM)) {
    _exit(126);
  }
  std::vector<char*> words = {const_cast<char*>("fw-privileged")};
  for (const std::string& argument : start.arguments) {
    words.push_back(const_cast<char*>(argument.c_str()));
  }
  words.push_back(nullptr);
  execv(FW_PRIVILEGED_PROGRAM, words.data());
  _exit(126);
}

}  // namespace

ServiceProcess::ServiceProcess(const ServiceStart& start) {
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) {
    std::abort();
  }
  pid_ = fork();
  if (pid_ == 0) {
    runService(start, ends[1]);
  }
  close(ends[1]);
  log_ = ends[0];
}

ServiceProcess::~ServiceProcess() {
  if (pid_ > 0) {
    stop();
  }
  close(log_);
}

// Asks first: a process that is killed says nothing about what it has counted.
void ServiceProcess::stop() const {
  signal(SIGTERM);
  signal(SIGCONT);
  if (!waitUntilEnded()) {
    signal(SIGKILL);
  }
  waitpid(pid_, nullptr, 0);
}

bool ServiceProcess::waitUntilEnded() const {
  const int process = static_cast<int>(syscall(SYS_pidfd_open, pid_, 0));
  pollfd end = {process, POLLIN, 0};
  const bool ended = process >= 0 && poll(&end, 1, kPatienceMs) > 0;
  close(process);
  return ended;
}

std::string ServiceProcess::waitForLine(const std::string& text) {
  for (;;) {
    const std::size_t end = unread_.find('\n');
    if (end != std::string::npos) {
      const std::string line = unread_.substr(0, end);
      unread_.erase(0, end + 1);
      if (line.find(text) != std::string::npos) {
        return line;
      }
      continue;
    }
    pollfd ready = {log_, POLLIN, 0};
    char block[4096];
    const ssize_t count = poll(&ready, 1, kPatienceMs) > 0 ? read(log_, block, sizeof block) : 0;
    if (count <= 0) {
      return "";
    }
    unread_.append(block, static_cast<std::size_t>(count));
  }
}

std::string ServiceProcess::readToTheEnd() {
  std::string text = std::move(unread_);
  unread_.clear();
  char block[4096];
  for (ssize_t count = 0; (count = read(log_, block, sizeof block)) > 0;) {
    text.append(block, static_cast<std::size_t>(count));
  }
  return text;
}

bool ServiceProcess::isRunning() const {
  siginfo_t info = {};
  return waitid(P_PID, static_cast<id_t>(pid_), &info, WEXITED | WNOHANG | WNOWAIT) == 0 && info.si_pid == 0;
}

void ServiceProcess::signal(int signal) const {
  // A process that has ended has no number any more, and -1 would be everybody.
  if (pid_ > 0) {
    kill(pid_, signal);
  }
}

int ServiceProcess::waitForEnd() {
  int status = 0;
  waitpid(pid_, &status, 0);
  pid_ = -1;
  return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
}
