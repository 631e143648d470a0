// SPDX-License-Identifier: Apache-2.0
// The commands themselves, one source file each in commands/.
#ifndef FW_UPDATE_TOOL_COMMANDS_H
#define FW_UPDATE_TOOL_COMMANDS_H

#include "command-line.h"
#include "frame/report.h"

namespace tool {

frame::Report runList(const Options& options);
frame::Report runInfo(const Options& options);
frame::Report runVerify(const Options& options);
frame::Report runPending(const Options& options);
frame::Report runUpdate(const Options& options);
frame::Report runProgress(const Options& options);
frame::Report runUpdateAll(const Options& options);
frame::Report runPendingList(const Options& options);
frame::Report runAllDone(const Options& options);
frame::Report runUsbEstimate(const Options& options);
frame::Report runUsbApply(const Options& options);
frame::Report runDownload(const Options& options);
frame::Report runLockStatus(const Options& options);
frame::Report runLockRecover(const Options& options);
frame::Report runExplain(const Options& options);
frame::Report runHistory(const Options& options);
frame::Report runHistoryShow(const Options& options);

// What is wrong with the text of a time; empty when it is one.
std::string sinceProblem(const std::string& text);

}  // namespace tool

#endif
