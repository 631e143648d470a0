// SPDX-License-Identifier: Apache-2.0
// A child process that logs with settings of its own: the platform log chooses
// its sink once per process.
#ifndef TESTS_UNIT_PLATFORM_LOGGING_CHILD_H
#define TESTS_UNIT_PLATFORM_LOGGING_CHILD_H

#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <functional>

// The body's result is the child's exit code.
class LoggingChild {
 public:
  // setting: FW_UPDATE_LOG, or null for unset. standardError: the child's stderr.
  LoggingChild(const char* setting, int standardError, const std::function<int()>& body) : pid_(fork()) {
    if (pid_ == 0) {
      setenv("TZ", "UTC", 1);
      setting == nullptr ? unsetenv("FW_UPDATE_LOG") : setenv("FW_UPDATE_LOG", setting, 1);
      dup2(standardError, STDERR_FILENO);
      // Nothing else may hold the writing end, or the reader waits for ever.
      close(standardError);
      _exit(body());
    }
  }

  pid_t id() const { return pid_; }

  // The exit code, or the negative number of the signal that ended it.
  int wait() const {
    int status = -1;
    waitpid(pid_, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
  }

 private:
  pid_t pid_;
};

#endif
