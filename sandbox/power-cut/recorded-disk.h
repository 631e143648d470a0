// SPDX-License-Identifier: Apache-2.0
// A file system with one file, "disk", whose writes and flushes are recorded; a loop
// device on it makes a disk of it. What is written to the file "mark" is a mark in the
// record. One disk a process.
#ifndef SANDBOX_POWER_CUT_RECORDED_DISK_H
#define SANDBOX_POWER_CUT_RECORDED_DISK_H

#include <string>

namespace powercut {

// Shows the image as DIRECTORY/disk, and returns when it is unmounted: the exit code of
// the process. started is called when it can be used. Throws std::system_error.
int recordDisk(const std::string& image, const std::string& log, const std::string& directory,
               void (*started)());

}  // namespace powercut

#endif
