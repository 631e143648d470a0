// SPDX-License-Identifier: Apache-2.0
#include "lock/lock-recovery.h"

#include <chrono>
#include <cstring>
#include <thread>

#include "lock/recovery-turn.h"

namespace tool {
namespace {

using Clock = std::chrono::steady_clock;

// For what passes by itself: a process on its way into the wait, one that is just
// ending, a look at the lock's state.
constexpr std::chrono::milliseconds kPatience{300};
// For other recoveries, which take a little longer than their own patience.
constexpr std::chrono::seconds kTurnPatience{20};
constexpr std::chrono::milliseconds kPause{20};

Recovery because(RecoveryResult result, LockUsers users = {}) {
  Recovery recovery;
  recovery.result = result;
  recovery.users = std::move(users);
  return recovery;
}

// Why it is safe. What must never happen is a post while an updater of a live process
// holds the lock. An updater maps the semaphore's file from before it takes the lock
// until its process ends, and opens the file anew before each wait for the lock.
//
// With sole use: the kernel says that nobody else has the file open or mapped. So
// nobody holds the lock, and nobody can take or give it back until somebody opens the
// file. A process that starts now waits in its open until the post is done. One that
// opens later, should the kernel have broken the lease of a recovery that was stopped
// for long, finds 0, waits in sem_wait and takes the post: that is its purpose.
//
// Without, because others wait for the lock, /proc has to tell. It shows one process
// after the other, and in between the lock can be handed on: a holder gives it to a
// waiter that was looked at before, and ends before it is looked at itself. Therefore
// everything is looked at twice, and an open in the meantime spoils the result. Say
// that when the second look began a live process held the lock, or was about to wake
// up the next one in its sem_post. Nobody has opened the file since before the first
// look, so that look saw this process, and saw it waiting. So did the second look,
// after it was done with the lock: but to wait again it would have had to open the
// file. So there was no such process, and with the value 0 at that moment nobody is
// left who could give the lock back, and nobody can take it.
Recovery tryOnce(UpdateLock& lock, bool ignoreHidden) {
  if (lock.value() > 0) {
    return because(RecoveryResult::Free);
  }
  bool isUsed = false;
  {
    const SoleUse use(lock);
    isUsed = use.refused();
    if (use.granted() && lock.value() == 0) {
      lock.giveBack();
      return because(RecoveryResult::GivenBack);
    }
  }
  const OpenWatch watch(lock);
  const LockUsers first = findLockUsers(lock);
  if (lock.value() > 0) {
    return because(RecoveryResult::Free);
  }
  LockUsers second = findLockUsers(lock);
  if (second.has(LockRole::MayHold)) {
    return because(RecoveryResult::MayBeHeld, std::move(second));
  }
  const bool isUsedUnseen = isUsed && second.users.empty();
  const bool seesAll = (first.seesAll() && second.seesAll()) || ignoreHidden;
  if (isUsedUnseen || !seesAll || !watch.works()) {
    return because(RecoveryResult::MayBeHidden, std::move(second));
  }
  if (!(first.users == second.users) || !watch.nobodyOpened()) {
    return because(RecoveryResult::MayBeHeld, std::move(second));
  }
  lock.giveBack();
  return because(RecoveryResult::GivenBack, std::move(second));
}

bool isFinal(RecoveryResult result) {
  return result != RecoveryResult::MayBeHeld && result != RecoveryResult::MayBeHidden;
}

// "312 (fw-update update libtuner); ..."
std::string namesOf(const std::vector<LockUser>& users) {
  std::string names;
  for (const LockUser& user : users) {
    if (user.role == LockRole::MayHold) {
      names += (names.empty() ? "" : "; ") + std::to_string(user.process) + " (" + user.command + ")";
    }
  }
  return names.empty() ? "a process that came or ended just now" : names;
}

constexpr const char* kWhenHeld =
    "If it runs an update, wait for it. If it does not, end it, and recover again. See: fw-update lock "
    "status";
constexpr const char* kWhenHidden =
    "Recover as root, outside of containers; or, when no hidden process uses the lock: fw-update lock "
    "recover --ignore-hidden";

}  // namespace

Recovery recoverUpdateLock(bool ignoreHidden) {
  const RecoveryTurn turn(kTurnPatience);
  Recovery recovery;
  if (turn.isRefused()) {
    recovery.result = RecoveryResult::OtherRecovery;
    return recovery;
  }
  UpdateLock lock;
  if (lock.error() != 0) {
    recovery.error = lock.error();
    return recovery;
  }
  const auto end = Clock::now() + kPatience;
  recovery = tryOnce(lock, ignoreHidden);
  while (!isFinal(recovery.result) && Clock::now() < end) {
    std::this_thread::sleep_for(kPause);
    recovery = tryOnce(lock, ignoreHidden);
  }
  return recovery;
}

Finding explainRecovery(const Recovery& recovery) {
  switch (recovery.result) {
    case RecoveryResult::GivenBack:
      return {Outcome::Ok, "The update lock was given back.", ""};
    case RecoveryResult::Free:
      return {Outcome::NothingToDo, "The update lock is free.", ""};
    case RecoveryResult::MayBeHeld:
      return {Outcome::LockInUse,
              "The update lock was not given back. It may be held by " + namesOf(recovery.users.users) + ".",
              kWhenHeld};
    case RecoveryResult::MayBeHidden:
      return {Outcome::LockInUse,
              "The update lock was not given back. It may be held by a process that cannot be seen. " +
                  recovery.users.blindSpot(),
              kWhenHidden};
    case RecoveryResult::OtherRecovery:
      return {Outcome::AlreadyRunning, "Another recovery of the update lock is under way and does not end.",
              "Wait for it, or end it, and recover again."};
    case RecoveryResult::NotOpened:
      break;
  }
  Finding finding = explainClosedLock(recovery.error);
  if (finding.outcome == Outcome::Ok) {
    finding.outcome = Outcome::NothingToDo;
  }
  return finding;
}

Finding explainWait() {
  const UpdateLock lock;
  const LockUsers others = lock.error() == 0 ? findLockUsers(lock) : LockUsers();
  if (others.has(LockRole::MayHold)) {
    return {Outcome::Stopped,
            "It waited for another update, which may hold the lock: " + namesOf(others.users) + ".",
            "Wait until that one has ended, then try again."};
  }
  if (lock.error() == 0 && lock.value() == 0 && others.seesAll()) {
    return {Outcome::Stopped,
            "It waited for the update lock, which a process that is no more has left taken.",
            "Give it back: fw-update lock recover"};
  }
  return {Outcome::Stopped, "It waited for another update.", "See who has the lock: fw-update lock status"};
}

Finding explainClosedLock(int error) {
  const std::string lock = "the update lock " + UpdateLock::path();
  const std::string reason = std::string(" (") + std::strerror(error) + ").";
  if (error == ENOENT) {
    return {Outcome::Ok, "There is no update lock: no update has run since the device started.", ""};
  }
  if (error == EACCES || error == EPERM) {
    return {Outcome::NotPermitted, "This user may not use " + lock + reason,
            "Run the command as root, or as the user that owns the lock."};
  }
  return {Outcome::Unexpected, "This command cannot open " + lock + reason,
          "Check that /dev/shm is mounted and writable, and that nothing else stands in the lock's place."};
}

}  // namespace tool
