// SPDX-License-Identifier: Apache-2.0
#include "lock/release-program.h"

#include <pthread.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <string>

#include "lock/recovery-turn.h"
#include "lock/update-lock.h"

namespace tool {
namespace {

constexpr const char* kProgramName = "fw-update-ends";
constexpr int kFirstOwnDescriptor = 3;  // behind the standard streams
// Recoveries are short; one that was stopped is not waited for.
constexpr std::chrono::seconds kTurnPatience{2};

sigset_t endingSignals() {
  sigset_t signals;
  sigemptyset(&signals);
  for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
    sigaddset(&signals, signal);
  }
  return signals;
}

// What a module left open may be a lock of its component.
void closeAllBut(int descriptor) {
  const auto kept = static_cast<unsigned int>(descriptor);
  if (descriptor > kFirstOwnDescriptor) {
    close_range(kFirstOwnDescriptor, kept - 1, 0);
  }
  close_range(kept + 1, ~0U, 0);
}

}  // namespace

// The turn keeps recoveries away: they would see a lock that is taken and in nobody's
// hands. A second signal waits until the lock is given back; the mask is inherited.
void becomeReleaseProgram(int signal, const std::function<bool()>& holdsLock) {
  const RecoveryTurn turn(kTurnPatience);
  if (!turn.isTaken()) {
    return;
  }
  const sigset_t signals = endingSignals();
  sigset_t before;
  pthread_sigmask(SIG_BLOCK, &signals, &before);
  std::string number = std::to_string(signal);
  std::string descriptor = std::to_string(turn.keepForNextProgram());
  std::string name = kProgramName;
  char* arguments[] = {name.data(), number.data(), descriptor.data(), nullptr};
  if (holdsLock()) {
    execv("/proc/self/exe", arguments);
  }
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

void runReleaseProgram(int argumentCount, char** arguments) {
  if (argumentCount != 3 || std::strcmp(arguments[0], kProgramName) != 0) {
    return;
  }
  const int signal = std::stoi(arguments[1]);
  closeAllBut(std::stoi(arguments[2]));
  UpdateLock lock;
  // The value tells whether the library had given it back.
  if (lock.error() == 0 && lock.value() == 0) {
    lock.giveBack();
  }
  const sigset_t signals = endingSignals();
  std::signal(signal, SIG_DFL);
  raise(signal);
  pthread_sigmask(SIG_UNBLOCK, &signals, nullptr);
  std::_Exit(128 + signal);
}

}  // namespace tool
