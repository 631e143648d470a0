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

inline constexpr Command commands[] = {
    {"list", "List the update modules of this device", AcceptsNothing, "fw-update list", runList},
    {"info", "Show one module: firmware name, active version, progress", AcceptsModule,
     "fw-update info libtuner", runInfo},
    {"pending", "Show which modules need an update, and why the others do not", AcceptsCaller,
     "fw-update pending --caller lsm", runPending},
    {"update", "Update one module and wait until it is done", AcceptsModule | AcceptsCaller | AcceptsProgress,
     "fw-update update libtuner --caller upgrade-app", runUpdate},
    {"progress", "Show how far a running update of a module is", AcceptsModule, "fw-update progress libtuner",
     runProgress},
    {"download", "Have the extension packages of modules downloaded", AcceptsModules | AcceptsProgress,
     "fw-update download libwifi --wait", runDownload},
    {"update-all", "Update every module whose extension package is newer, with the power held",
     AcceptsProgress | AcceptsDryRun, "fw-update update-all --dry-run", runUpdateAll},
    {"pending-list", "Write /tmp/fwupdate-off-list.txt and show it", AcceptsNothing, "fw-update pending-list",
     runPendingList},
    {"all-done", "Tell every module that a run over all modules is over", AcceptsNothing,
     "fw-update all-done", runAllDone},
    {"usb estimate", "Show which modules need a package of the drive, and how long that takes",
     AcceptsPackages, "fw-update usb estimate --key-file /usr/share/fw-update/package.key", runUsbEstimate},
    {"usb apply", "Apply the packages of the drive to the modules that need them",
     AcceptsPackages | AcceptsProgress, "fw-update usb apply --key-file /usr/share/fw-update/package.key",
     runUsbApply},
};

}  // namespace tool

#endif
