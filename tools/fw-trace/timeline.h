// SPDX-License-Identifier: Apache-2.0
// What happened, derived from the messages: the update requests of each process
// with their stages. Pure; any thread.
#ifndef FW_TRACE_TIMELINE_H
#define FW_TRACE_TIMELINE_H

#include <cstdint>
#include <list>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "entry.h"
#include "record-stream.h"
#include "update-tracker.h"

namespace tracetool {

using fwmessages::Result;
using fwmessages::Span;
using fwmessages::Stage;
using fwmessages::StageSpan;

const char* nameOf(Result result);

const char* nameOf(Stage stage);

// With the trace that tells of it. Times are nanoseconds since 1970.
struct Update : fwmessages::Update {
  const TraceFile* file = nullptr;
};

struct Timeline {
  std::vector<Entry> entries;
  std::vector<Update> updates;  // by the time they began
  std::map<std::pair<const TraceFile*, std::uint32_t>, std::string> threadNames;
};

// Of traces with their records.
Timeline timelineOf(std::vector<TraceFile>& files);

// The updates alone, read a piece at a time, of traces that are only opened.
std::vector<Update> updatesOf(std::list<TraceReading>& readings);

}  // namespace tracetool

#endif
