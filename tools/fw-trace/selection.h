// The traces that a command works on: those that were named, or all of the
// directory.
#ifndef FW_TRACE_SELECTION_H
#define FW_TRACE_SELECTION_H

#include <string>
#include <vector>

#include "command-line.h"
#include "message.h"
#include "outcome.h"
#include "trace-store.h"

namespace tracetool {

struct Selection {
  Report problem;  // its outcome is Ok when there is something to work on
  std::vector<TraceFile> files;
};

Selection selectTraces(const Options& options);

// One message of one of the traces.
struct Entry {
  const TraceFile* file = nullptr;
  Message message;
};

// All messages of the readable traces, in time order.
std::vector<Entry> entriesOf(std::vector<TraceFile>& files);

// What could not be read, one line each, for standard error and for JSON.
std::vector<std::string> skippedOf(const std::vector<TraceFile>& files);

}  // namespace tracetool

#endif
