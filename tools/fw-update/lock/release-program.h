// SPDX-License-Identifier: Apache-2.0
// The end of an update that Ctrl-C and the like break off while this process holds the
// update lock. The lock is to be given back when nothing of the module works any more:
// the next update may be of the same component. Therefore the process becomes a program
// with nothing in it but this, which gives the lock back and ends by the signal.
#ifndef FW_UPDATE_TOOL_RELEASE_PROGRAM_H
#define FW_UPDATE_TOOL_RELEASE_PROGRAM_H

#include <functional>

namespace tool {

// Returns when it is not possible, or when holdsLock(), asked last of all, says no.
void becomeReleaseProgram(int signal, const std::function<bool()>& holdsLock);

// For main: whether this is that program. Ends the process then.
void runReleaseProgram(int argumentCount, char** arguments);

}  // namespace tool

#endif
