// SPDX-License-Identifier: Apache-2.0
// This process as one that works for the update service. Everything here does nothing in one
// that does not. Any thread.
#ifndef FW_UPDATE_TOOL_SERVICE_GATE_H
#define FW_UPDATE_TOOL_SERVICE_GATE_H

#include <sys/types.h>

#include <optional>

#include "update-events.h"

namespace tool {

// The user who asked the service; empty: nobody did.
std::optional<uid_t> askedThroughService();

// Only the command's entry is wanted.
bool isForEntryAlone();
// Then the process ends with the service that wants it: one that is started after that has an
// entry made itself, and there would be two. Does not return when the service has ended already.
void endWithServiceForEntry();

// A module is about to be reached, when the event says so. Does not return when the job has been
// cancelled before: the process ends then, as a signal would end it.
void passServiceGate(fwmessages::Event event);

// The job was cancelled before it reached a module.
bool isCancelledThroughService();

}  // namespace tool

#endif
