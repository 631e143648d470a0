// SPDX-License-Identifier: Apache-2.0
// Where the command keeps what outlives one process of it, until the device restarts.
#ifndef FW_UPDATE_TOOL_RUN_DIRECTORY_H
#define FW_UPDATE_TOOL_RUN_DIRECTORY_H

#include "file-descriptor.h"

namespace tool {

// Closed when it is not there, or when somebody else than root and this user could write
// to it: then nothing in it is to be believed.
base::FileDescriptor openRunDirectory();

// The same, made when it is not there.
base::FileDescriptor makeRunDirectory();

// A file in the directory to be locked, made when it is not there. Who can open a file can
// lock it: only root and its owner can open this one. Closed when that is not so.
base::FileDescriptor openOwnLockFile(const base::FileDescriptor& directory, const char* name);

}  // namespace tool

#endif
