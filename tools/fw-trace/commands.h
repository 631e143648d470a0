// The commands themselves, one source file each in commands/.
#ifndef FW_TRACE_COMMANDS_H
#define FW_TRACE_COMMANDS_H

#include "command-line.h"
#include "outcome.h"

namespace tracetool {

Report runList(const Options& options);
Report runShow(const Options& options);
Report runFollow(const Options& options);
Report runExport(const Options& options);
Report runSummary(const Options& options);

inline constexpr Command kCommands[] = {
    {"list", "List the traces: which process, when, alive or dead", TakesNothing, "fw-trace list", runList},
    {"show", "Show the messages in time order over all threads", TakesFilters,
     "fw-trace show --module libtuner --since 14:03", runShow},
    {"follow", "Show the messages, then those that come, until Ctrl-C", TakesFilters, "fw-trace follow",
     runFollow},
    {"export", "Write the timeline for another program", TakesFormat,
     "fw-trace export --format perfetto -o trace.json", runExport},
    {"summary", "Show per module: attempts, results, where the time went", TakesNothing, "fw-trace summary",
     runSummary},
};

}  // namespace tracetool

#endif
