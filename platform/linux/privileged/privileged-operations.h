// SPDX-License-Identifier: Apache-2.0
// Carries privileged requests out, after the checks that need the file system.
// Needs the privileges itself; any thread. Nothing is ever opened through a
// symbolic link, nothing waits for another process, and what was checked is what is
// used: renames in between change nothing.
#ifndef PLATFORM_LINUX_PRIVILEGED_OPERATIONS_H
#define PLATFORM_LINUX_PRIVILEGED_OPERATIONS_H

#include <string>
#include <string_view>

#include "privileged/privileged-log.h"
#include "privileged/privileged-protocol.h"
#include "privileged/privileged-request.h"

namespace fwplatform {

// Parses a request, carries it out and logs what happened with who asked: at
// warning priority when it was refused or failed, else at info. A refusal has the
// status -EPERM.
PrivilegedAnswer answerPrivilegedRequest(PrivilegedOperation operation, std::string_view text,
                                         const PrivilegedCaller& caller, const RequestLogger& log);

// Takes back what a request that succeeded did and whose caller has gone: a mount
// is unmounted. Other operations stay done.
void takeBackPrivilegedRequest(PrivilegedOperation operation, std::string_view text,
                               const PrivilegedCaller& caller, const RequestLogger& log);

// Logs a refusal with who asked and gives the answer for it.
PrivilegedAnswer refusePrivilegedRequest(const PrivilegedCaller& caller, const std::string& what,
                                         const std::string& reason, const RequestLogger& log);

}  // namespace fwplatform

#endif
