// The commands themselves, one source file each in commands/.
#ifndef FW_UPDATE_TOOL_COMMANDS_H
#define FW_UPDATE_TOOL_COMMANDS_H

#include "command-line.h"
#include "report.h"

namespace tool {

Report runList(const Options& options);
Report runInfo(const Options& options);
Report runPending(const Options& options);
Report runUpdate(const Options& options);
Report runProgress(const Options& options);
Report runUpdateAll(const Options& options);
Report runPendingList(const Options& options);
Report runAllDone(const Options& options);
Report runUsbEstimate(const Options& options);
Report runUsbApply(const Options& options);
Report runDownload(const Options& options);
Report runLockStatus(const Options& options);
Report runLockRecover(const Options& options);
Report runExplain(const Options& options);

}  // namespace tool

#endif
