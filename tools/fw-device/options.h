// SPDX-License-Identifier: Apache-2.0
// What the command line of fw-device says. Plain values.
#ifndef FW_DEVICE_OPTIONS_H
#define FW_DEVICE_OPTIONS_H

#include <string>
#include <vector>

namespace fwdevice {

struct Options {
  bool json = false;
  std::string directory;
  bool fresh = false;                     // init
  std::string root;                       // init
  std::string build;                      // init
  std::vector<std::string> keepVisible;   // run, shell
  std::vector<std::string> keepWritable;  // run, shell
  std::vector<std::string> program;       // run: the command and its arguments
};

}  // namespace fwdevice

#endif
