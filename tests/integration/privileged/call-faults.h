// SPDX-License-Identifier: Apache-2.0
// Lets a test act within system calls that the privileged operations make: the test
// program that has call-faults.cpp takes their place. All pass through unless a test says
// otherwise. One thread.
#ifndef TESTS_INTEGRATION_PRIVILEGED_CALL_FAULTS_H
#define TESTS_INTEGRATION_PRIVILEGED_CALL_FAULTS_H

#include <functional>
#include <map>
#include <string>

namespace faults {

// Called before the call of this name: "statx", "mknodat", "move_mount", "umount2",
// "LOOP_CONFIGURE", "fsconfig" ... An errno value lets it fail without being made.
extern std::map<std::string, std::function<int()>> before;
// Called after it.
extern std::map<std::string, std::function<void()>> after;
// As on kernels that do not know the attribute or the number.
extern bool kernelKnowsNoMountRoots;
extern bool kernelKnowsNoMountIds;

}  // namespace faults

#endif
