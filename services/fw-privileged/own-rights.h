// SPDX-License-Identifier: Apache-2.0
// What the service may do. Started by the service manager its unit limits it; started by
// hand it limits itself in the same way.
#ifndef TOOLS_FW_PRIVILEGED_OWN_RIGHTS_H
#define TOOLS_FW_PRIVILEGED_OWN_RIGHTS_H

// Keeps the capabilities to mount, to make nodes and to read images of others, if it has
// them, and can never get another. 0 or an errno value. For a process without threads.
int giveUpOtherRights();

#endif
