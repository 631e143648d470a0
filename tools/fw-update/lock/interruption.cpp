// SPDX-License-Identifier: Apache-2.0
#include "lock/interruption.h"

#include <fcntl.h>
#include <semaphore.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <iostream>
#include <utility>

#include "command-line.h"
#include "frame/report.h"
#include "fw-update-common.h"
#include "library/library-log.h"
#include "lock/lock-recovery.h"
#include "lock/release-program.h"
#include "signal-guards.h"
#include "terminal.h"

namespace tool {
namespace {

int writeEnd = -1;

// A signal handler can do little; a thread does the work.
void passOn(int signal) {
  const int errorNumber = errno;
  const auto byte = static_cast<unsigned char>(signal);
  [[maybe_unused]] const auto written = write(writeEnd, &byte, 1);
  errno = errorNumber;
}

// The value tells whether the library has posted already.
void releaseUpdateLock() {
  sem_t* lock = sem_open(semName, 0);
  int value = 0;
  if (lock != SEM_FAILED && sem_getvalue(lock, &value) == 0 && value == 0) {
    sem_post(lock);
  }
}

using Is = bool fwmessages::Update::*;

// Whether one of the updates since the mark is so.
bool anyUpdate(std::size_t logMark, Is is) {
  const fwmessages::UpdateTracker tracker = trackerOf(LibraryLog::instance().since(logMark));
  return std::any_of(tracker.updates().begin(), tracker.updates().end(),
                     [is](const fwmessages::Update& update) { return update.*is; });
}

// The library may have given the lock back although a module still works.
void leaveUpdate(std::size_t logMark, int signal) {
  const auto holdsLock = [logMark] { return anyUpdate(logMark, &fwmessages::Update::holdsLock); };
  if (isTerminal(STDOUT_FILENO)) {
    std::cout << std::endl;
  }
  if (anyUpdate(logMark, &fwmessages::Update::waitsForLock)) {
    const Finding finding = explainWait();
    frame::complain(program().info.name, finding.message, finding.remedy);
  } else if (holdsLock()) {
    becomeReleaseProgram(signal, holdsLock);
  }
  // That it could not is no reason to leave the lock taken.
  if (holdsLock()) {
    releaseUpdateLock();
  }
}

// 0: there will be none.
unsigned char nextSignal(int readEnd) {
  unsigned char signal = 0;
  while (read(readEnd, &signal, 1) < 0 && errno == EINTR) {
  }
  return signal;
}

}  // namespace

InterruptionGuard::InterruptionGuard(std::size_t logMark, std::function<void()> onFirst) {
  int ends[2] = {-1, -1};
  if (pipe2(ends, O_CLOEXEC) != 0) {
    return;
  }
  readEnd_ = ends[0];
  writeEnd = ends[1];
  watcher_ = std::thread([this, logMark, onFirst = std::move(onFirst)] { watch(logMark, onFirst); });
  for (std::size_t i = 0; i < kWatchedCount; ++i) {
    struct sigaction action = {};
    // A reader that went away does not end an update.
    action.sa_handler = kWatched[i] == SIGPIPE ? SIG_IGN : passOn;
    action.sa_flags = SA_RESTART;
    sigaction(kWatched[i], nullptr, &before_[i]);
    if (!base::isIgnored(kWatched[i])) {
      sigaction(kWatched[i], &action, nullptr);
    }
  }
}

InterruptionGuard::~InterruptionGuard() {
  if (!watcher_.joinable()) {
    return;
  }
  for (std::size_t i = 0; i < kWatchedCount; ++i) {
    sigaction(kWatched[i], &before_[i], nullptr);
  }
  passOn(0);
  watcher_.join();
  close(readEnd_);
  close(writeEnd);
}

void InterruptionGuard::watch(std::size_t logMark, const std::function<void()>& onFirst) const {
  unsigned char signal = nextSignal(readEnd_);
  if (signal != 0 && onFirst) {
    onFirst();
    signal = nextSignal(readEnd_);
  }
  if (signal == 0) {
    return;
  }
  leaveUpdate(logMark, signal);
  std::signal(signal, SIG_DFL);
  kill(getpid(), signal);
}

}  // namespace tool
