// SPDX-License-Identifier: Apache-2.0
// Makes one check in a process of its own, so that a crash or a hang is a finding
// like any other.
#ifndef FW_PLATFORM_CHECK_RUNNER_H
#define FW_PLATFORM_CHECK_RUNNER_H

#include <sys/types.h>

#include <functional>

#include "check.h"

namespace conformance {

// Waits at most so many seconds. Throws std::system_error when no process or pipe
// can be made.
Finding runApart(const Check& check, int seconds);

// A child that ends with 0 when body gives true; base::waitForEnd waits for it.
pid_t startChild(const std::function<bool()>& body);

// From now on Ctrl-C and the like let the running check end, so that it unmounts and
// removes what it made; the second one ends the check too.
void catchInterruptions();
// The signal that came; 0: none.
int interruption();

}  // namespace conformance

#endif
