#include "child-process.h"

#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <stdexcept>

ChildProcess::ChildProcess(const std::function<int()>& function) : pid(fork()) {
  if (pid < 0) {
    throw std::runtime_error("fork failed");
  }
  if (pid == 0) {
    int result = 255;
    try {
      result = function();
    } catch (const std::exception& error) {
      std::fprintf(stderr, "child process: %s\n", error.what());
    }
    std::fflush(nullptr);
    _exit(result);
  }
}

ChildProcess::~ChildProcess() {
  if (pid > 0) {
    kill(SIGKILL);
    wait();
  }
}

int ChildProcess::wait() {
  int status = 0;
  while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  pid = -1;
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

void ChildProcess::kill(int signal) {
  ::kill(pid, signal);
}

int runInChild(const std::function<int()>& function) {
  return ChildProcess(function).wait();
}
