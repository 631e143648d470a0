// SPDX-License-Identifier: Apache-2.0
// What this set asks of a package: its keys and lists, its model, its minimum versions.
// Safe from any thread.
#ifndef FW_PLATFORM_DEVICE_POLICY_H
#define FW_PLATFORM_DEVICE_POLICY_H

#include <string>

#include "package-signature.h"

namespace fwpackage {

Trust trustOfDevice();

// The package of this name and kind for this set.
Expectation wantedOnDevice(Kind kind, const std::string& name);

// The USB package for the component that the file's name says.
Expectation wantedAt(const std::string& filePath);

// In this process, from now on: whether packages older than the minimum version pass.
void allowRollback(bool allow);

// After a package with a valid report was applied. 0 or an errno value.
int noteApplied(const SignatureReport& report);

}  // namespace fwpackage

#endif
