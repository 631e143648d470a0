// SPDX-License-Identifier: Apache-2.0
// What a module's library name says: whether it runs a procedure of its own, and what
// its package and firmware are called. A plain value.
#ifndef FW_MODULE_NEW_MODULE_NAME_H
#define FW_MODULE_NEW_MODULE_NAME_H

#include <stdexcept>
#include <string>

namespace fwmodule {

struct ModuleName {
  std::string library;     // "libdoor": its file is libdoor.so
  bool extension = false;  // "EXT-" is in it
  std::string identifier;  // "doorempfw"; of the package, unless it is an EXT- module
  std::string firmware;    // "doorfw": the identifier without its first "emp"
};

// what() is a sentence about what is wrong with the name and which would do.
class BadName : public std::runtime_error {
  using runtime_error::runtime_error;
};

// Throws BadName.
ModuleName parseModuleName(const std::string& library);

}  // namespace fwmodule

#endif
