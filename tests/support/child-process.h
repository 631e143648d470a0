// SPDX-License-Identifier: Apache-2.0
// A real second process of the test: a fork that runs a function and ends with its
// result. Only for use while the test has one thread.
#ifndef CHILD_PROCESS_H
#define CHILD_PROCESS_H

#include <sys/types.h>

#include <functional>

// The result must fit an exit code, 0 to 255.
class ChildProcess {
 public:
  explicit ChildProcess(const std::function<int()>& function);
  // Kills a child that is still there, and waits for it.
  ~ChildProcess();
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  pid_t id() const { return pid_; }
  // The exit code, or -1 when a signal ended the child.
  int wait();
  void kill(int signal);

 private:
  pid_t pid_;
};

int runInChild(const std::function<int()>& function);

#endif
