#include "lock/interruption.h"

#include <fcntl.h>
#include <semaphore.h>
#include <unistd.h>

#include <cerrno>
#include <iostream>
#include <utility>

#include "fw-update-common.h"
#include "library-messages.h"
#include "library/library-log.h"
#include "library/log-meanings.h"
#include "lock/release-program.h"
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

// Those of the module whose turn it is, in a run over several.
LogMessages lastTurn(const LogMessages& messages) {
  std::size_t begin = 0;
  for (std::size_t i = 0; i < messages.size(); ++i) {
    if (messages[i].format == MESSAGE_LOCK_WANTED) {
      begin = i;
    }
  }
  return LogMessages(messages.begin() + static_cast<std::ptrdiff_t>(begin), messages.end());
}

// The library has given the lock back although the module may still work.
bool gaveLockBack(const LogMessages& turn) {
  return findMessage(turn, MESSAGE_TIMED_OUT) != nullptr ||
         findMessage(turn, MESSAGE_POWER_RELEASE) != nullptr;
}

// The library logs the one message before it waits for the lock, the other one
// when it has it.
bool holdsLock(const LogMessages& turn) {
  return findMessage(turn, MESSAGE_LOCK_TAKEN) != nullptr && !gaveLockBack(turn);
}

bool waitsForLock(const LogMessages& turn) {
  return findMessage(turn, MESSAGE_LOCK_WANTED) != nullptr &&
         findMessage(turn, MESSAGE_LOCK_TAKEN) == nullptr && !gaveLockBack(turn);
}

void leaveUpdate(std::size_t logMark, int signal) {
  const auto turn = [logMark] { return lastTurn(LibraryLog::instance().since(logMark)); };
  if (isTerminal(STDOUT_FILENO)) {
    std::cout << std::endl;
  }
  if (waitsForLock(turn())) {
    std::cerr << "fw-update: Another update held the lock. If none runs, it was left behind; give it back:\n"
                 "fw-update lock recover"
              << std::endl;
  } else if (holdsLock(turn())) {
    becomeLastAct(signal, [&turn] { return holdsLock(turn()); });
  }
  // That it could not is no reason to leave the lock taken.
  if (holdsLock(turn())) {
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
    if (before_[i].sa_handler != SIG_IGN) {  // nohup stays nohup
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
