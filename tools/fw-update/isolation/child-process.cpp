// SPDX-License-Identifier: Apache-2.0
#include "isolation/child-process.h"

#include <poll.h>
#include <sys/mman.h>
#include <sys/signalfd.h>
#include <sys/wait.h>
#include <unistd.h>

#include <new>

#include "system-error.h"

namespace tool {
namespace {

constexpr int kTakenSignals[] = {SIGINT, SIGTERM, SIGHUP, SIGCHLD};

ChildRecord* mapRecord() {
  void* const memory =
      mmap(nullptr, sizeof(ChildRecord), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  if (memory == MAP_FAILED) {
    base::throwErrno("mmap");
  }
  return new (memory) ChildRecord{};
}

}  // namespace

void ChildProcess::Unmap::operator()(ChildRecord* record) const {
  munmap(record, sizeof(ChildRecord));
}

ChildProcess::ChildProcess(const std::string& module) : record_(mapRecord()) {
  module.copy(record_->module, sizeof record_->module - 1);
  sigset_t taken;
  sigemptyset(&taken);
  for (const int signal : kTakenSignals) {
    sigaddset(&taken, signal);
  }
  signals_.reset(signalfd(-1, &taken, SFD_CLOEXEC | SFD_NONBLOCK));
  if (!signals_) {
    base::throwErrno("signalfd");
  }
  sigprocmask(SIG_BLOCK, &taken, &maskBefore_);
  // A reader that goes away ends neither the child nor this process.
  struct sigaction ignore = {};
  ignore.sa_handler = SIG_IGN;
  sigaction(SIGPIPE, &ignore, &pipeBefore_);
  process_ = fork();
  if (process_ < 0) {
    base::throwErrno("fork");
  }
  if (isChild()) {
    signals_.reset();
    giveSignalsBack();
  }
}

ChildProcess::~ChildProcess() {
  giveSignalsBack();
}

void ChildProcess::giveSignalsBack() const {
  sigaction(SIGPIPE, &pipeBefore_, nullptr);
  sigprocmask(SIG_SETMASK, &maskBefore_, nullptr);
}

void ChildProcess::wait(std::chrono::milliseconds atMost, const OnSignal& onSignal) {
  pollfd polled = {signals_.get(), POLLIN, 0};
  poll(&polled, 1, static_cast<int>(atMost.count()));
  signalfd_siginfo info = {};
  while (read(signals_.get(), &info, sizeof info) == static_cast<ssize_t>(sizeof info)) {
    const int signal = static_cast<int>(info.ssi_signo);
    if (signal != SIGCHLD) {
      onSignal(signal, info.ssi_code == SI_KERNEL);
    }
  }
}

std::optional<int> ChildProcess::status() {
  int value = 0;
  if (!ended_ && waitpid(process_, &value, WNOHANG) == process_) {
    ended_ = value;
  }
  return ended_;
}

// Not when its number may be another's by now.
void ChildProcess::kill(int signal) {
  if (!status()) {
    ::kill(process_, signal);
  }
}

}  // namespace tool
