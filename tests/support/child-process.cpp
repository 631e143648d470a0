// SPDX-License-Identifier: Apache-2.0
#include "child-process.h"

#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <stdexcept>

ChildProcess::ChildProcess(const std::function<int()>& function) : pid_(fork()) {
  if (pid_ < 0) {
    throw std::runtime_error("fork failed");
  }
  if (pid_ == 0) {
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
  if (pid_ > 0) {
    kill(SIGKILL);
    wait();
  }
}

int ChildProcess::wait() {
  int status = 0;
  while (waitpid(pid_, &status, 0) < 0 && errno == EINTR) {
  }
  pid_ = -1;
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

void ChildProcess::kill(int signal) {
  ::kill(pid_, signal);
}

int runInChild(const std::function<int()>& function) {
  return ChildProcess(function).wait();
}
