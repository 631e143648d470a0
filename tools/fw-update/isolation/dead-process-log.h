// SPDX-License-Identifier: Apache-2.0
// The library's messages of a process that is gone, from the trace that it kept. Plain
// function.
#ifndef FW_UPDATE_TOOL_DEAD_PROCESS_LOG_H
#define FW_UPDATE_TOOL_DEAD_PROCESS_LOG_H

#include <sys/types.h>

#include "library/library-log.h"

namespace tool {

// Those at error priority, which traces have; empty where no trace was kept.
LogMessages logOfDeadProcess(pid_t process);

}  // namespace tool

#endif
