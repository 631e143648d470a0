// SPDX-License-Identifier: Apache-2.0
// Who may leave traces: the history takes in what applications of theirs did.
#ifndef FW_UPDATED_TRACE_ACCESS_H
#define FW_UPDATED_TRACE_ACCESS_H

#include <string>

namespace updated {

// The members of the group that may ask for updates. A directory that is not as a process of root
// makes it stays as somebody else wants it; so does every one where there is no such group.
void letMembersTrace(const std::string& directory = "/run/fw-trace");

}  // namespace updated

#endif
