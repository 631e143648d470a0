// SPDX-License-Identifier: Apache-2.0
// Commands that the update service carries out: with the same output and exit codes as without it.
#ifndef FW_UPDATE_TOOL_SERVICE_COMMANDS_H
#define FW_UPDATE_TOOL_SERVICE_COMMANDS_H

#include <string>

#include "command-line.h"
#include "frame/report.h"

namespace tool {

// command: its whole name. What cannot be asked is in the report.
frame::Report runThroughService(const Options& options, const std::string& command);

}  // namespace tool

#endif
