#include "service-process.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>

namespace {

constexpr int kPatienceMs = 10000;

// False when a capability that is to go can't be dropped.
bool KeepOnly(const std::vector<int>& capabilities) {
  for (int capability = 0; prctl(PR_CAPBSET_READ, capability) >= 0; ++capability) {
    const bool keep = std::count(capabilities.begin(), capabilities.end(), capability) != 0;
    if (!keep && prctl(PR_CAPBSET_DROP, capability) != 0) {
      return false;
    }
  }
  return prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0;
}

void HandOver(int listener) {
  // A copy first: dup2 of a descriptor onto itself would leave it to be closed.
  dup2(dup(listener), 3);
  setenv("LISTEN_FDS", "1", 1);
  setenv("LISTEN_PID", std::to_string(getpid()).c_str(), 1);
}

[[noreturn]] void RunService(const ServiceStart& start, int log) {
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  setenv("FW_UPDATE_LOG", "stderr", 1);
  dup2(log, STDERR_FILENO);
  if (start.listener >= 0) {
    HandOver(start.listener);
  }
  if (start.capabilities && !KeepOnly(*start.capabilities)) {
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
    RunService(start, ends[1]);
  }
  close(ends[1]);
  log_ = ends[0];
}

ServiceProcess::~ServiceProcess() {
  if (pid_ > 0) {
    Stop();
  }
  close(log_);
}

// Asks first: a process that is killed says nothing about what it has counted.
void ServiceProcess::Stop() const {
  const int process = static_cast<int>(syscall(SYS_pidfd_open, pid_, 0));
  pollfd end = {process, POLLIN, 0};
  kill(pid_, SIGTERM);
  kill(pid_, SIGCONT);
  if (process < 0 || poll(&end, 1, kPatienceMs) <= 0) {
    kill(pid_, SIGKILL);
  }
  close(process);
  waitpid(pid_, nullptr, 0);
}

std::string ServiceProcess::WaitForLine(const std::string& text) {
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

bool ServiceProcess::IsRunning() const {
  siginfo_t info = {};
  return waitid(P_PID, static_cast<id_t>(pid_), &info, WEXITED | WNOHANG | WNOWAIT) == 0 && info.si_pid == 0;
}

void ServiceProcess::Signal(int signal) const {
  kill(pid_, signal);
}

int ServiceProcess::WaitForEnd() {
  int status = 0;
  waitpid(pid_, &status, 0);
  pid_ = -1;
  return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
}
