// SPDX-License-Identifier: Apache-2.0
#include "command-line.h"

#include <new>
#include <system_error>

#include "commands.h"
#include "outcomes.h"

namespace tool {
namespace {

using Option = frame::Option<Options>;

constexpr std::size_t kMaximumData = 127;

std::vector<std::string> callerNames() {
  std::vector<std::string> names;
  for (const fwcallers::Caller& caller : fwcallers::kCallers) {
    if (caller.name != nullptr) {
      names.emplace_back(caller.name);
    }
  }
  return names;
}

std::string callerProblem(const std::string& name) {
  return fwcallers::findCaller(name) != nullptr ? "" : "there is no caller " + name;
}

std::string dataProblem(const std::string& data) {
  return data.size() <= kMaximumData ? "" : "more than 127 characters";
}

std::vector<std::string> progressForms() {
  return {"ndjson"};
}

std::string progressProblem(const std::string& form) {
  return form == "ndjson" ? "" : "the only form is ndjson, not " + form;
}

constexpr Option kCommon[] = {{"--log", &Options::log, "Show the library's log on standard error"}};

constexpr Option kModule[] = {
    Option("NAME", &Options::module, "Library name: the module's file without \".so\"")
        .required()
        .completedWith(frame::Completes::Modules),
};

constexpr Option kVersion[] = {
    Option("--version TEXT", &Options::version, "The version that is to be active, to the letter").required(),
};

constexpr Option kCaller[] = {
    Option("--caller NAME", &Options::callerName, "Who asks").checked(callerProblem).of(callerNames),
    Option("--data TEXT", &Options::givenData, "Request data for the module, at most 127 characters")
        .checked(dataProblem),
};

constexpr Option kProgress[] = {
    Option("--progress ndjson", &Options::progress, "Print one JSON object a line; the last is the result")
        .checked(progressProblem)
        .of(progressForms),
};

constexpr Option kDryRun[] = {
    {"--dry-run", &Options::dryRun, "Say what would run and for how long; change nothing"},
};

constexpr Option kIsolation[] = {
    {"--isolated", &Options::isolated, "In a child process, watched for crashes and hangs"},
    Option("--patience SECONDS", &Options::patience, "How long a silent module is waited for; default: 120")
        .within(1, 86400)
        .needing("--isolated"),
};

constexpr Option kService[] = {
    {"--service", &Options::service, "Have the update service do it"},
    Option("--bus ADDRESS", &Options::bus, "The bus it is on; default: the system bus").needing("--service"),
};

constexpr Option kBus[] = {
    {"--bus ADDRESS", &Options::bus, "The service's bus; default: the system bus"},
};

constexpr Option kAnyJob[] = {
    Option("JOB", &Options::number, "Its number; default: the one at work, or the next one")
        .within(1, 2147483647),
};

constexpr Option kJob[] = {
    Option("JOB", &Options::number, "Its number, as fw-update jobs shows it")
        .required()
        .within(1, 2147483647),
};

constexpr Option kPackages[] = {
    {"DIR", &Options::directory, "Where the packages lie; default: the mounted USB drive"},
    Option("--key-file FILE", &Options::keyFile, "The packages' key: a file of 32 bytes; not with --service"),
    {"--allow-rollback", &Options::allowRollback, "Packages below the minimum version too; for root"},
};

constexpr Option kDownload[] = {
    Option("NAME", &Options::modules, "Library names, as fw-update list shows them")
        .completedWith(frame::Completes::Modules),
    Option("--all", &Options::allModules, "Every module that has a package").excluding("NAME"),
    {"--wait", &Options::wait, "Wait for the downloads and show how they go"},
};

constexpr Option kRecover[] = {
    {"--ignore-hidden", &Options::ignoreHidden, "Processes that cannot be looked at do not use the lock"},
};

constexpr Option kHistory[] = {
    Option("--module NAME", &Options::module, "Only this module").completedWith(frame::Completes::Modules),
    Option("--since TIME", &Options::since, "Only from then on: 2026-01-31, or 14:03 of today")
        .checked(sinceProblem),
    {"--failed", &Options::failedOnly, "Only what did not succeed"},
};

constexpr Option kNumber[] = {
    Option("NUMBER", &Options::number, "As fw-update history shows it").required().within(1, 2147483647),
};

constexpr Option kLine[] = {
    Option("LINE", &Options::words, "A line of the log or of a command, in quotes").required(),
};

// What only the process has that calls the library.
void settleService(const Options& options) {
  if (!options.service) {
    return;
  }
  if (options.log) {
    throw frame::UsageError("--log: the library's log is where the service runs");
  }
  if (options.isolated) {
    throw frame::UsageError("--isolated: the service has a process of its own for each job");
  }
  if (options.dryRun) {
    throw frame::UsageError("--dry-run: the service has no job that changes nothing");
  }
}

void settle(Options& options) {
  options.caller = fwcallers::findCaller(options.callerName);
  options.data = options.givenData.value_or("");
  options.ndjson = !options.progress.empty();
  settleService(options);
  if (options.caller->fixedData != nullptr && options.givenData) {
    throw frame::UsageError("--data: caller " + options.callerName + " has fixed data");
  }
}

void settleByService(Options& options) {
  options.service = true;
  settle(options);
}

void settleUsb(Options& options) {
  settle(options);
  if (!options.service && options.keyFile.empty()) {
    throw frame::UsageError("--key-file is required");
  }
  if (options.service && !options.keyFile.empty()) {
    throw frame::UsageError("--key-file: the service has a key of its own");
  }
  if (options.service && options.allowRollback) {
    throw frame::UsageError("--allow-rollback: the service takes no package below the minimum version");
  }
}

void settleDownload(Options& options) {
  settle(options);
  if (options.service && (options.modules.size() != 1 || !options.wait)) {
    throw frame::UsageError("--service wants one module, and --wait");
  }
  if (options.modules.empty() && !options.allModules) {
    throw frame::UsageError("which module? Name it, or use --all");
  }
  if (options.ndjson && !options.wait) {
    throw frame::UsageError("--progress needs --wait");
  }
}

// Such a command is never come to.
frame::Report runByService(const Options&) {
  return frame::Report(Outcome::Unexpected);
}

std::string callerLines() {
  std::string lines = "Callers, and where their images come from:\n";
  for (const fwcallers::Caller& caller : fwcallers::kCallers) {
    if (caller.name != nullptr) {
      lines += "  " + (caller.name + std::string(20, ' ')).substr(0, 20) + caller.places + "\n";
    }
  }
  return lines;
}

constexpr frame::Group kGroups[] = {
    {"usb", "Encrypted packages on a USB drive: estimate, apply"},
    {"lock", "The lock for one update at a time: status, recover"},
};

constexpr frame::Group kSharedLines[] = {
    {"info, verify", "Show one module; say whether a version is active on it"},
    {"jobs, watch, cancel", "The jobs of the update service: show, follow, take back"},
};

constexpr frame::Command<Options> kCommands[] = {
    {{"list", "List the update modules of this device", "fw-update list"},
     {kService, kIsolation},
     runList,
     settle},
    {{"info", "Show one module: firmware name, active version, progress", "fw-update info libtuner"},
     {kModule, kIsolation},
     runInfo,
     settle},
    {{"verify", "Say whether a version is active, also by the exit code",
      "fw-update verify libtuner --version 2.0.0"},
     {kModule, kVersion, kIsolation},
     runVerify,
     settle},
    {{"pending", "Show which modules need an update, and why others do not", "fw-update pending --caller lsm",
      callerLines},
     {kCaller, kService},
     runPending,
     settle},
    {{"update", "Update one module and wait until it is done",
      "fw-update update libtuner --caller upgrade-app", callerLines},
     {kModule, kCaller, kProgress, kIsolation, kService},
     runUpdate,
     settle},
    {{"progress", "Show how far a running update of a module is", "fw-update progress libtuner"},
     {kModule},
     runProgress,
     settle},
    {{"download", "Have the extension packages of modules downloaded", "fw-update download libwifi --wait"},
     {kDownload, kProgress, kService},
     runDownload,
     settleDownload},
    {{"update-all", "Update every module that needs its package, power held",
      "fw-update update-all --dry-run"},
     {kProgress, kDryRun, kIsolation, kService},
     runUpdateAll,
     settle},
    {{"pending-list", "Write /tmp/fwupdate-off-list.txt and show it", "fw-update pending-list"},
     {},
     runPendingList,
     settle},
    {{"all-done", "Tell every module that a run over all modules is over", "fw-update all-done"},
     {},
     runAllDone,
     settle},
    {{"usb estimate", "Show which modules need a package, and how long it takes",
      "fw-update usb estimate --key-file /usr/share/fw-update/package.key"},
     {kPackages, kService},
     runUsbEstimate,
     settleUsb},
    {{"usb apply", "Apply the packages of the drive to modules that need them",
      "fw-update usb apply --key-file /usr/share/fw-update/package.key"},
     {kPackages, kProgress, kIsolation, kService},
     runUsbApply,
     settleUsb},
    {{"lock status", "Show whether the update lock is taken, and who uses it", "fw-update lock status"},
     {kService},
     runLockStatus,
     settle},
    {{"lock recover", "Give the lock back that a dead update left taken", "fw-update lock recover"},
     {kRecover},
     runLockRecover,
     settle},
    {{"history", "Show the updates of this device, the newest last", "fw-update history --failed"},
     {kHistory, kService},
     runHistory,
     settle},
    {{"history show", "Show everything about one update", "fw-update history show 12"},
     {kNumber, kService},
     runHistoryShow,
     settle},
    {{"jobs", "Show the jobs of the update service, the newest last", "fw-update jobs"},
     {kBus},
     runByService,
     settleByService},
    {{"watch", "Show how far a job of the update service is, until its end", "fw-update watch 3"},
     {kAnyJob, kProgress, kBus},
     runByService,
     settleByService},
    {{"cancel", "Take a job back that has not reached a module", "fw-update cancel 3"},
     {kJob, kBus},
     runByService,
     settleByService},
    {{"explain", "Say what a line of the log or of a command means",
      "fw-update explain \"Error: Usb mount path Not found.\""},
     {kLine},
     runExplain,
     settle},
};

frame::Report explain(const std::exception& error) {
  constexpr const char* kNoRoom = "Try again when the device has more memory free.";
  if (dynamic_cast<const std::bad_alloc*>(&error) != nullptr) {
    return frame::Report(Outcome::Unexpected, "The device has no memory left for this command.", kNoRoom);
  }
  if (dynamic_cast<const std::system_error*>(&error) != nullptr) {
    return frame::Report(Outcome::Unexpected,
                         std::string("The command could not be carried out: ") + error.what() + ".", kNoRoom);
  }
  return frame::Report(Outcome::Unexpected, std::string("Unexpected error: ") + error.what(),
                       "See the log (--log).");
}

constexpr frame::Program<Options> kProgram = {
    {"fw-update", "Updates the firmware of this device's add-on components.",
     "Each command explains itself: fw-update update --help", kOutcomeTable, Outcome::Usage,
     Outcome::Unexpected, 22, nullptr, kGroups, nullptr, "Print one JSON document on standard output",
     explain, kSharedLines},
    kCommon,
    kCommands,
};

}  // namespace

const frame::Program<Options>& program() {
  return kProgram;
}

}  // namespace tool
