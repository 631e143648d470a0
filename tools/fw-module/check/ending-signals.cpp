// SPDX-License-Identifier: Apache-2.0
#include "ending-signals.h"

#include <sys/signalfd.h>
#include <unistd.h>

#include "signal-guards.h"
#include "system-error.h"

namespace fwmodule {
namespace {

constexpr int kSignals[] = {SIGINT, SIGTERM, SIGHUP};

sigset_t endingSignals() {
  sigset_t signals;
  sigemptyset(&signals);
  for (const int signal : kSignals) {
    if (!base::isIgnored(signal)) {
      sigaddset(&signals, signal);
    }
  }
  return signals;
}

}  // namespace

EndingSignals::EndingSignals() {
  const sigset_t signals = endingSignals();
  descriptor_ = base::FileDescriptor(signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK));
  if (!descriptor_) {
    base::throwErrno("signalfd");
  }
  sigprocmask(SIG_BLOCK, &signals, &before_);
}

EndingSignals::~EndingSignals() {
  sigprocmask(SIG_SETMASK, &before_, nullptr);
}

int EndingSignals::take() const {
  signalfd_siginfo info = {};
  const bool came = read(descriptor_.get(), &info, sizeof info) == static_cast<ssize_t>(sizeof info);
  return came ? static_cast<int>(info.ssi_signo) : 0;
}

void EndingSignals::forget() {
  sigset_t signals;
  sigemptyset(&signals);
  for (const int signal : kSignals) {
    std::signal(signal, SIG_DFL);
    sigaddset(&signals, signal);
  }
  sigprocmask(SIG_UNBLOCK, &signals, nullptr);
}

}  // namespace fwmodule
