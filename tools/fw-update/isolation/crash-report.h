// SPDX-License-Identifier: Apache-2.0
// How a command in a child process ended that did not come to its result, in words. Pure.
#ifndef FW_UPDATE_TOOL_CRASH_REPORT_H
#define FW_UPDATE_TOOL_CRASH_REPORT_H

#include "isolation/child-record.h"
#include "outcomes.h"

namespace tool {

// status: as waitpid gives it.
Finding explainCrash(const ChildRecord& child, int status);
Finding explainHang(const ChildRecord& child, Seconds silence);

// "SIGSEGV"
std::string signalName(int signal);

}  // namespace tool

#endif
