// SPDX-License-Identifier: Apache-2.0
// The right to give the update lock back from outside the library: one process of the
// device at a time has it. The kernel takes it back however the process ends; an empty
// file stays in the run directory. For one thread.
#ifndef FW_UPDATE_TOOL_RECOVERY_TURN_H
#define FW_UPDATE_TOOL_RECOVERY_TURN_H

#include <chrono>

#include "file-descriptor.h"

namespace tool {

class RecoveryTurn {
 public:
  // Waits at most that long for another's turn to end.
  explicit RecoveryTurn(std::chrono::milliseconds patience);

  bool isTaken() const { return taken_; }
  // Not when there is no place for locks: then there is no lock either.
  bool isRefused() const { return file_ && !taken_; }

  // The turn goes on in a program that this process becomes, which gets the descriptor.
  int keepForNextProgram() const;

 private:
  base::FileDescriptor file_;
  bool taken_ = false;
};

}  // namespace tool

#endif
