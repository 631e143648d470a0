// SPDX-License-Identifier: Apache-2.0
// What the command line of fw-module says. Plain values.
#ifndef FW_MODULE_OPTIONS_H
#define FW_MODULE_OPTIONS_H

#include <string>
#include <vector>

namespace fwmodule {

struct Options {
  bool json = false;
  // new
  std::string name;
  std::string language = "c++";
  std::string directory;  // empty: the name
  // check
  std::string file;
  int limit = 30;  // seconds that a call may last
  std::string image;
  std::string version;
  std::vector<std::string> keepVisible;
  bool list = false;
  std::string junit;
  bool cutPower = false;
};

}  // namespace fwmodule

#endif
