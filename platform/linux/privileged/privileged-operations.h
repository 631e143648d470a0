// Carries privileged requests out, after the checks that need the file system.
// Needs the privileges itself; any thread. Nothing is ever opened through a
// symbolic link, and what was checked is what is used: renames in between change
// nothing.
#ifndef PLATFORM_LINUX_PRIVILEGED_OPERATIONS_H
#define PLATFORM_LINUX_PRIVILEGED_OPERATIONS_H

#include <sys/types.h>

#include <string>
#include <string_view>

#include "privileged/privileged-protocol.h"
#include "privileged/privileged-request.h"

namespace fwplatform {

// Who asks, for the log.
struct PrivilegedCaller {
  pid_t pid;
  uid_t uid;
  gid_t gid;
};

std::string Describe(const PrivilegedCaller& caller);

// Parses a request, carries it out and logs what happened with who asked: at
// warning priority when it was refused or failed, else at info. A refusal has the
// status -EPERM.
PrivilegedAnswer AnswerPrivilegedRequest(PrivilegedOperation operation, std::string_view text,
                                         const PrivilegedCaller& caller);

// Takes back what a request that succeeded did and whose caller has gone: a mount
// is unmounted. Other operations stay done.
void TakeBackPrivilegedRequest(PrivilegedOperation operation, std::string_view text,
                               const PrivilegedCaller& caller);

// Logs a refusal with who asked and gives the answer for it.
PrivilegedAnswer RefusePrivilegedRequest(const PrivilegedCaller& caller, const std::string& what,
                                         const std::string& reason);

}  // namespace fwplatform

#endif
