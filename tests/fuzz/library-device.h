// SPDX-License-Identifier: Apache-2.0
// The library in a device, with one scripted module and the recording platform, for
// the targets that test it at its fixed paths.
#ifndef FUZZ_LIBRARY_DEVICE_H
#define FUZZ_LIBRARY_DEVICE_H

#include <string>
#include <vector>

#include "fw-update-symbol.h"
#include "recording-platform.h"
#include "scripted-module.h"

namespace fuzz {

constexpr const char* kModuleStem = "libabc";  // its identifier is "abcemp"

// Enters an empty device and installs the module.
void enterLibraryDevice(const std::vector<std::string>& visible);

// The module, bound; what the platform and the script were told before is forgotten.
FWUpdateSymbol& boundModule();

}  // namespace fuzz

#endif
