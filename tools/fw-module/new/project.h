// SPDX-License-Identifier: Apache-2.0
// Writes the project of a new module.
#ifndef FW_MODULE_NEW_PROJECT_H
#define FW_MODULE_NEW_PROJECT_H

#include <string>
#include <vector>

#include "module-name.h"
#include "templates.h"

namespace fwmodule {

// Makes the directory with all files of the project, or nothing. Returns their names. An
// empty directory may be there already; nothing else is ever overwritten. Throws Failure,
// std::system_error.
std::vector<std::string> writeProject(const std::string& directory, const ModuleName& name,
                                      const Language& language);

}  // namespace fwmodule

#endif
