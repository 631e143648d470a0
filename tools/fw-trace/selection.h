// The traces that a command works on: those that were named, or all of the
// directory.
#ifndef FW_TRACE_SELECTION_H
#define FW_TRACE_SELECTION_H

#include <vector>

#include "frame/report.h"
#include "options.h"
#include "outcome.h"
#include "trace-store.h"

namespace tracetool {

struct Selection {
  frame::Report problem{Outcome::Ok};  // it ends well when there is something to work on
  std::vector<TraceFile> files;
};

Selection selectTraces(const Options& options);

// What could not be read, one line each, for standard error and for JSON.
void addSkipped(frame::Report& report, const std::vector<TraceFile>& files);

}  // namespace tracetool

#endif
