// SPDX-License-Identifier: Apache-2.0
// fw-update update NAME
#include <chrono>
#include <cstdio>
#include <exception>
#include <future>
#include <optional>

#include "commands.h"
#include "isolation/supervised.h"
#include "library/library.h"
#include "library/log-meanings.h"
#include "lock/interruption.h"
#include "progress/progress-poller.h"
#include "progress/progress-reporter.h"
#include "record/update-record.h"
#include "report.h"

namespace tool {
namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::milliseconds kRedraw{100};

double secondsSince(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

std::string activeVersion(const Library& library, const std::string& name) {
  supervised::tellStep(Step::Version, name);
  char version[128] = {};
  return library.facade->fw_getVersion(name.c_str(), version) == 0 ? version : "";
}

// Of one update; empty: not known.
struct Update {
  Finding finding;
  std::string versionBefore;  // empty: the module could not be asked
  std::optional<int> result;  // the facade's
  double elapsedSeconds = 0;
  std::optional<unsigned int> expectedSeconds;
  std::optional<std::string> versionAfter;
  bool moduleRuns = false;  // a thread is still inside the module
};

// What left the facade instead of a result. After the time limit was logged, no
// module code runs on this thread: the library itself could not go on.
Finding explainException(const std::exception& error, const LogMessages& messages,
                         const std::string& module) {
  if (timeLimit(messages)) {
    return {Outcome::Unexpected, std::string("The update could not be started: ") + error.what() + ".",
            "Try again when the device has more memory free."};
  }
  return {Outcome::ModuleFailed, brokeOff(module, error).message,
          "Install a version of the module that fits this device."};
}

std::string orUnknown(const std::string& version) {
  return version.empty() ? "unknown" : version;
}

// "Version 1.0.0 -> 2.0.0 in 4.1 s."
std::string describeChange(const Update& update) {
  const std::string before = orUnknown(update.versionBefore);
  const std::string after = orUnknown(*update.versionAfter);
  char seconds[32];
  std::snprintf(seconds, sizeof seconds, "%.1f s.", update.elapsedSeconds);
  if (before == after) {
    return "Version " + after + " as before, in " + seconds;
  }
  return "Version " + before + " -> " + after + " in " + seconds;
}

using Answer = std::future<int>;

// Tells the progress until the answer is there. False when the module does not answer.
bool followProgress(const Options& options, ProgressReporter& reporter, const Answer& answer,
                    std::size_t mark, Clock::time_point start) {
  ProgressPoller poller(options.module);
  do {
    const LogMessages messages = LibraryLog::instance().since(mark);
    UpdateProgress progress = progressOf(messages, options.module, start, Clock::now());
    progress.percent = poller.percent();
    reporter.tick(progress);
  } while (answer.wait_for(kRedraw) != std::future_status::ready);
  reporter.finish();
  return poller.stop();
}

// Runs the facade's blocking call on a thread of its own and tells the progress
// until it returns.
void requestUpdate(Update& update, const Options& options, FWUpdateContorl& facade,
                   ProgressReporter& reporter) {
  const std::size_t mark = LibraryLog::instance().mark();
  const Clock::time_point start = Clock::now();
  const InterruptionGuard guard(mark);
  const std::string data = options.requestData();
  reporter.start(options);
  supervised::tellStep(Step::Check, options.module);
  Answer answer = std::async(std::launch::async, [&] {
    return facade.fw_update_from_control(options.module.c_str(), options.caller->type, data.c_str());
  });
  update.moduleRuns = !followProgress(options, reporter, answer, mark, start);

  const LogMessages messages = LibraryLog::instance().since(mark);
  try {
    update.result = answer.get();
    update.finding = explainUpdate(*update.result, messages, options.module);
  } catch (const std::exception& error) {
    update.finding = explainException(error, messages, options.module);
  }
  update.elapsedSeconds = rounded(secondsSince(start));
  if (const auto limit = timeLimit(messages)) {
    update.expectedSeconds = limit->expected;
  }
}

Update perform(const Options& options, const Library& library) {
  Update update;
  update.versionBefore = activeVersion(library, options.module);
  UpdateRecord::instance().moduleIsDue(options.module, findItem(library, options.module)->fw_name,
                                       update.versionBefore);
  const auto reporter = makeProgressReporter(options);
  requestUpdate(update, options, *library.facade, *reporter);
  if (update.finding.outcome == Outcome::TimedOut) {
    update.moduleRuns = true;  // and is not asked anything more
  }
  if (update.finding.outcome == Outcome::Updated) {
    reporter->verifying();
    update.versionAfter = activeVersion(library, options.module);
    update.finding.message += " " + describeChange(update);
  }
  return update;
}

frame::Report reportOf(const Update& update) {
  frame::Report report = reportOf(update.finding);
  report.endsAtOnce = update.moduleRuns;
  report.details["versionBefore"] = update.versionBefore;
  report.details["elapsedSeconds"] = update.elapsedSeconds;
  if (update.result) {
    report.details["result"] = *update.result;
  }
  if (update.expectedSeconds) {
    report.details["expectedSeconds"] = *update.expectedSeconds;
  }
  if (update.versionAfter) {
    report.details["versionAfter"] = *update.versionAfter;
  }
  return report;
}

}  // namespace

frame::Report runUpdate(const Options& options) {
  const Library library = openLibrary();
  const auto problem = moduleProblem(library, options.module);
  frame::Report report = problem ? reportOf(*problem) : reportOf(perform(options, library));
  report.details["module"] = options.module;
  report.details["caller"] = options.caller->name;
  return report;
}

}  // namespace tool
