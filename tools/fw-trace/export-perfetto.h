// A timeline in the Trace Event Format (JSON), which the Perfetto viewer opens: one
// track a thread, updates and their stages as slices, messages as instants.
#ifndef FW_TRACE_EXPORT_PERFETTO_H
#define FW_TRACE_EXPORT_PERFETTO_H

#include <string>

#include "timeline.h"

namespace tracetool {

std::string exportPerfetto(const Timeline& timeline);

}  // namespace tracetool

#endif
