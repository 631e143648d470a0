// SPDX-License-Identifier: Apache-2.0
// The processes that have the update lock open, as /proc shows them at one moment.
// Plain values; any thread.
#ifndef FW_UPDATE_TOOL_LOCK_USERS_H
#define FW_UPDATE_TOOL_LOCK_USERS_H

#include <sys/types.h>

#include <cstddef>
#include <string>
#include <vector>

#include "lock/update-lock.h"

namespace tool {

enum class LockRole {
  MayHold,  // has it mapped: holds it, or held it once; from outside both look the same
  Waits,    // waits for it, and cannot be holding it
  HasOpen,  // has the file open but not mapped: cannot be holding it
};

struct LockUser {
  pid_t process = 0;
  unsigned long long started = 0;  // since boot; tells processes of one number apart
  std::string user;
  std::string command;
  LockRole role = LockRole::MayHold;
  std::size_t waitingThreads = 0;
};

bool operator==(const LockUser& left, const LockUser& right);

struct LockUsers {
  std::vector<LockUser> users;  // by process number; this process is left out
  std::vector<pid_t> hidden;    // may not be looked at, and could have it open
  bool allNamespaces = true;    // false: only processes of this PID namespace are seen
  bool allProcesses = true;     // false: /proc does not even show everybody's processes

  bool has(LockRole role) const;
  bool seesAll() const { return hidden.empty() && allNamespaces && allProcesses; }
  // One sentence on what cannot be seen; empty when everything is.
  std::string blindSpot() const;
};

LockUsers findLockUsers(const UpdateLock& lock);

}  // namespace tool

#endif
