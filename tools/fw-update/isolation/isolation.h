// SPDX-License-Identifier: Apache-2.0
// Runs a command in a child process and watches it, so that a module that crashes or
// hangs takes only the child with it: what died is told in words, and what it held is
// given back. The child puts out its progress and its result itself. To be called
// before the process loads a module or starts a thread.
#ifndef FW_UPDATE_TOOL_ISOLATION_H
#define FW_UPDATE_TOOL_ISOLATION_H

#include <optional>

#include "command-line.h"
#include "frame/report.h"
#include "library/library-log.h"

namespace tool {

struct IsolatedEnd {
  bool isChild = false;                 // this is the child: the command is to be run
  int exitCode = 0;                     // of the child, when it has put its result out
  std::optional<frame::Report> report;  // what is to be put out when it has not
  LogMessages log;                      // the library's, as the child's trace has it; with --log
  int signal = 0;                       // the one that this process is to end by
};

// Returns in both processes.
IsolatedEnd runIsolated(const Options& options);

}  // namespace tool

#endif
