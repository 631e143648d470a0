// One message of one of the traces. A plain value.
#ifndef FW_TRACE_ENTRY_H
#define FW_TRACE_ENTRY_H

#include <vector>

#include "message.h"
#include "trace-store.h"

namespace tracetool {

struct Entry {
  const TraceFile* file = nullptr;
  Message message;
};

// All messages of the readable traces, in time order.
std::vector<Entry> entriesOf(std::vector<TraceFile>& files);

}  // namespace tracetool

#endif
