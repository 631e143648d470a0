// SPDX-License-Identifier: Apache-2.0
// Updates of programs that do not keep the history themselves, in the history all the same: from
// what the library has traced in them. For one thread.
#ifndef FW_UPDATE_TOOL_TAKEN_TRACES_H
#define FW_UPDATE_TOOL_TAKEN_TRACES_H

#include "history.h"

namespace tool {

// Each update once, when it is over; of a program that is gone also one that it did not end. Does
// nothing where the history or the traces are not this user's to use.
void takeTraces(history::History& history);

}  // namespace tool

#endif
