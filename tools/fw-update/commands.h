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

inline constexpr Command kCommands[] = {
    {"list", "List the update modules of this device", AcceptsNothing, "fw-update list", runList},
    {"info", "Show one module: firmware name, active version, progress", AcceptsModule,
     "fw-update info libtuner", runInfo},
    {"pending", "Show which modules need an update, and why others do not", AcceptsCaller,
     "fw-update pending --caller lsm", runPending},
    {"update", "Update one module and wait until it is done",
     AcceptsModule | AcceptsCaller | AcceptsProgress | AcceptsIsolated,
     "fw-update update libtuner --caller upgrade-app", runUpdate},
    {"progress", "Show how far a running update of a module is", AcceptsModule, "fw-update progress libtuner",
     runProgress},
    {"download", "Have the extension packages of modules downloaded", AcceptsModules | AcceptsProgress,
     "fw-update download libwifi --wait", runDownload},
    {"update-all", "Update every module that needs its package, power held",
     AcceptsProgress | AcceptsDryRun | AcceptsIsolated, "fw-update update-all --dry-run", runUpdateAll},
    {"pending-list", "Write /tmp/fwupdate-off-list.txt and show it", AcceptsNothing, "fw-update pending-list",
     runPendingList},
    {"all-done", "Tell every module that a run over all modules is over", AcceptsNothing,
     "fw-update all-done", runAllDone},
    {"usb estimate", "Show which modules need a package, and how long it takes", AcceptsPackages,
     "fw-update usb estimate --key-file /usr/share/fw-update/package.key", runUsbEstimate},
    {"usb apply", "Apply the packages of the drive to modules that need them",
     AcceptsPackages | AcceptsProgress | AcceptsIsolated,
     "fw-update usb apply --key-file /usr/share/fw-update/package.key", runUsbApply},
    {"lock status", "Show whether the update lock is taken, and who uses it", AcceptsNothing,
     "fw-update lock status", runLockStatus},
    {"lock recover", "Give the lock back that a dead update left taken", AcceptsIgnoreHidden,
     "fw-update lock recover", runLockRecover},
};

// What the commands of one group share.
struct CommandGroup {
  const char* name;
  const char* summary;
};

inline constexpr CommandGroup kCommandGroups[] = {
    {"usb", "Encrypted packages on a USB drive: estimate, apply"},
    {"lock", "The lock for one update at a time: status, recover"},
};

}  // namespace tool

#endif
