// SPDX-License-Identifier: Apache-2.0
// The directory that the traces of all processes lie in. A process holds a lock on
// its own file as long as it lives, so that anybody can tell whose process is gone.
// No state; any thread and any process.
#ifndef PLATFORM_LINUX_TRACE_DIRECTORY_H
#define PLATFORM_LINUX_TRACE_DIRECTORY_H

#include <cstdint>
#include <string>

#include "file-descriptor.h"

namespace fwplatform::trace {

// Opens the directory, and makes it when only its last part is missing. On failure
// the descriptor is empty and errno says why.
base::FileDescriptor openTraceDirectory(const std::string& path);

// A new, empty, locked file for this process, named after it and the time (in
// nanoseconds since 1970). On failure the descriptor is empty and errno says why.
base::FileDescriptor createTraceFile(int directory, const std::string& processName, std::int64_t realTime);

// True while the process whose file this is (or a child that has not noticed yet)
// lives. Takes the lock for a moment when nobody holds it.
bool isOfLiveProcess(int file);

// Removes the files of dead processes that are older than maxAgeSeconds, then the
// oldest until all files together take no more than maxBytes.
void cleanUp(int directory, std::int64_t now, std::int64_t maxAgeSeconds, std::uint64_t maxBytes);

}  // namespace fwplatform::trace

#endif
