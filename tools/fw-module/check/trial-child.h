// SPDX-License-Identifier: Apache-2.0
// The child process of a trial.
#ifndef FW_MODULE_CHECK_TRIAL_CHILD_H
#define FW_MODULE_CHECK_TRIAL_CHILD_H

#include <sys/types.h>

#include "subject.h"
#include "trials/trials.h"

namespace fwmodule {

// To be called right after fork. Enters a device, loads the module there and runs the
// trial; tells everything to the pipe. What the module prints goes to "output".
[[noreturn]] void runChild(const Trial& trial, const Subject& subject, int pipe, int output, pid_t parent);

}  // namespace fwmodule

#endif
