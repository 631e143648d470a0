// SPDX-License-Identifier: Apache-2.0
#include "signal-guards.h"

#include <cerrno>
#include <ctime>

namespace base {

bool isIgnored(int signal) {
  struct sigaction action = {};
  return sigaction(signal, nullptr, &action) == 0 && action.sa_handler == SIG_IGN;
}

SignalsLater::SignalsLater() {
  sigset_t all;
  sigfillset(&all);
  pthread_sigmask(SIG_SETMASK, &all, &before_);
}

SignalsLater::~SignalsLater() {
  pthread_sigmask(SIG_SETMASK, &before_, nullptr);
}

HoldBackSigpipe::HoldBackSigpipe() {
  sigemptyset(&sigpipe_);
  sigaddset(&sigpipe_, SIGPIPE);
  sigset_t pending;
  sigemptyset(&pending);
  sigpending(&pending);
  wasPending_ = sigismember(&pending, SIGPIPE) == 1;
  pthread_sigmask(SIG_BLOCK, &sigpipe_, &before_);
}

HoldBackSigpipe::~HoldBackSigpipe() {
  if (!wasPending_) {
    const timespec noWait = {};
    while (sigtimedwait(&sigpipe_, nullptr, &noWait) < 0 && errno == EINTR) {
    }
  }
  pthread_sigmask(SIG_SETMASK, &before_, nullptr);
}

}  // namespace base
