// SPDX-License-Identifier: Apache-2.0
// Finds the file that a module's library really is, with all links resolved. While a
// ControlsDirectoryScan lives on a thread, the links on the way to the controls
// directory are resolved once for all modules of the scan, not again for each.
#ifndef MODULE_FILE_H
#define MODULE_FILE_H

#include <string>

class ControlsDirectoryScan {
 public:
  ControlsDirectoryScan();
  ~ControlsDirectoryScan();
  ControlsDirectoryScan(const ControlsDirectoryScan&) = delete;
  ControlsDirectoryScan& operator=(const ControlsDirectoryScan&) = delete;
};

// path is a file in the controls directory. Empty when it cannot be resolved.
std::string resolveModuleFile(const std::string& path);

#endif
