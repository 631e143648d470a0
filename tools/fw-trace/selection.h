// SPDX-License-Identifier: Apache-2.0
// The traces that a command works on: those that were named, or all of the
// directory.
#ifndef FW_TRACE_SELECTION_H
#define FW_TRACE_SELECTION_H

#include <list>
#include <string>
#include <vector>

#include "filter.h"
#include "frame/report.h"
#include "options.h"
#include "outcome.h"
#include "record-stream.h"
#include "trace-store.h"

namespace tracetool {

struct Selection {
  frame::Report problem{Outcome::Ok};  // it ends well when there is something to work on
  std::vector<TraceFile> files;
};

// Without their records.
Selection selectTraces(const Options& options);

bool isProcessId(const std::string& text);

// Ready to be read from their beginning.
std::list<TraceReading> readingsOf(const std::vector<TraceFile>& files);

// Shows the filter all messages that it learns from.
void learn(Filter& filter, std::list<TraceReading>& readings);

// What could not be read, one line each, for standard error and for JSON.
void addSkipped(frame::Report& report, const std::vector<TraceFile>& files);
void addSkipped(frame::Report& report, std::list<TraceReading>& readings);

}  // namespace tracetool

#endif
