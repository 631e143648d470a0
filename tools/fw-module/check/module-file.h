// SPDX-License-Identifier: Apache-2.0
// What a module's file says by itself, before any of its code runs.
#ifndef FW_MODULE_CHECK_MODULE_FILE_H
#define FW_MODULE_CHECK_MODULE_FILE_H

#include <string>
#include <vector>

namespace fwmodule {

struct Export {
  std::string name;
  bool function;
};

struct ModuleFile {
  std::string problem;  // why it is no shared library for this machine; empty when it is one
  std::vector<Export> exports;
  std::vector<std::string> needed;  // libraries
};

// bytes are the whole file, whatever it is.
ModuleFile readModuleFile(const std::string& bytes);

}  // namespace fwmodule

#endif
