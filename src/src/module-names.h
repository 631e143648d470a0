// SPDX-License-Identifier: Apache-2.0
// Which modules are extension modules.
#ifndef MODULE_NAMES_H
#define MODULE_NAMES_H

#include <algorithm>
#include <cctype>
#include <string>

// Whether a library name contains "EXT-" in any case, deliberately: such a module
// has no package and runs its own procedure.
inline bool isExtensionModule(std::string name) {
  std::transform(name.begin(), name.end(), name.begin(),
                 [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
  return name.find("EXT-") != std::string::npos;
}

#endif
