// SPDX-License-Identifier: Apache-2.0
// Ctrl-C and the like as an exception, so that what is unfinished is removed on the way
// out. Long work asks again and again. For a process with one thread.
#ifndef FW_PACK_INTERRUPTION_H
#define FW_PACK_INTERRUPTION_H

#include "interrupted.h"

namespace fwpack {

// From now on the signals do not end the process, but interrupt what it waits for.
void catchInterruptions();

// Throws tool::Interrupted when a signal has come.
void endIfInterrupted();

}  // namespace fwpack

#endif
