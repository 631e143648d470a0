// SPDX-License-Identifier: Apache-2.0
// Gives the update lock back when it was left taken by a process that is no more. The
// library itself does not; see the reasoning beside the code. Any process may try at
// any time, also several at once: the lock is given back once.
#ifndef FW_UPDATE_TOOL_LOCK_RECOVERY_H
#define FW_UPDATE_TOOL_LOCK_RECOVERY_H

#include "lock/lock-users.h"
#include "outcomes.h"

namespace tool {

enum class RecoveryResult {
  GivenBack,
  Free,           // it is not taken
  MayBeHeld,      // by one of the users
  MayBeHidden,    // by a process that cannot be seen
  OtherRecovery,  // which did not end
  NotOpened,      // see error
};

struct Recovery {
  RecoveryResult result = RecoveryResult::NotOpened;
  int error = 0;  // UpdateLock's
  LockUsers users;
};

// ignoreHidden: processes that cannot be looked at do not use the lock, on the
// caller's word.
Recovery recoverUpdateLock(bool ignoreHidden);

// The same in words.
Finding explainRecovery(const Recovery& recovery);

// What an update that waits for the lock, which is about to end, leaves behind.
Finding explainWait();

// Of a lock that cannot be opened. That there is none is nothing bad.
Finding explainClosedLock(int error);

}  // namespace tool

#endif
