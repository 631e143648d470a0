// SPDX-License-Identifier: Apache-2.0
// The commands themselves, one source file each in commands/.
#ifndef FW_TRACE_COMMANDS_H
#define FW_TRACE_COMMANDS_H

#include "frame/report.h"
#include "options.h"

namespace tracetool {

frame::Report runList(const Options& options);
frame::Report runShow(const Options& options);
frame::Report runFollow(const Options& options);
frame::Report runExport(const Options& options);
frame::Report runSummary(const Options& options);

}  // namespace tracetool

#endif
