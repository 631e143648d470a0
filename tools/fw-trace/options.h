// SPDX-License-Identifier: Apache-2.0
// What the command line of fw-trace says. Plain values.
#ifndef FW_TRACE_OPTIONS_H
#define FW_TRACE_OPTIONS_H

#include <string>
#include <vector>

#include "filter.h"
#include "trace/trace-settings.h"

namespace tracetool {

inline std::string defaultDirectory() {
  const std::string directory = fwplatform::trace::settingsFromEnvironment().directory;
  return directory.empty() ? fwplatform::trace::kDefaultDirectory : directory;
}

struct Options : Wanted {
  bool json = false;
  std::string directory = defaultDirectory();
  std::vector<std::string> traces;  // files or process ids; none: all of the directory
  std::string format;               // export
  std::string output;               // export
};

}  // namespace tracetool

#endif
