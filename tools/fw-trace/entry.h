// SPDX-License-Identifier: Apache-2.0
// One message of one of the traces. A plain value.
#ifndef FW_TRACE_ENTRY_H
#define FW_TRACE_ENTRY_H

#include "message.h"
#include "trace-store.h"

namespace tracetool {

struct Entry {
  const TraceFile* file = nullptr;
  Message message;
};

}  // namespace tracetool

#endif
