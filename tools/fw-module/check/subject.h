// SPDX-License-Identifier: Apache-2.0
// The module that is checked, as far as the checking process knows it. A plain value;
// what the trials find out is filled in as they go.
#ifndef FW_MODULE_CHECK_SUBJECT_H
#define FW_MODULE_CHECK_SUBJECT_H

#include <optional>
#include <string>
#include <vector>

#include "entry-points.h"

namespace fwmodule {

struct Subject {
  std::string path;
  std::string library;     // the file's name without ".so"
  bool extension = false;  // "EXT-" is in it
  std::string bytes;       // of the file

  // What the caller wants.
  std::optional<std::string> image;  // a good firmware image
  std::string version;               // of it; empty: the active one, counted up
  std::vector<std::string> keepVisible;
  bool cutPower = false;

  // What trials have found out.
  std::string identifier;
  std::string firmware;
  std::string activeVersion;
  std::string newerVersion;  // empty: the module knows none
  bool updates = false;      // a good image was written
  EntryPointSet broken = 0;  // what crashed or hung, and is called no more
};

}  // namespace fwmodule

#endif
