// fw-update update NAME
#include <chrono>
#include <cstdio>
#include <exception>
#include <future>

#include "commands.h"
#include "isolation/supervised.h"
#include "library/library.h"
#include "library/log-meanings.h"
#include "lock/interruption.h"
#include "progress/progress-poller.h"
#include "progress/progress-reporter.h"

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

// What left the facade instead of a result. After the time limit was logged, no
// module code runs on this thread: the library itself could not go on.
Finding explainException(const std::exception& error, const LogMessages& messages,
                         const std::string& module) {
  if (timeLimit(messages)) {
    return {Outcome::Unexpected, std::string("The update could not be started: ") + error.what() + ".",
            "Try again when the device has more memory free."};
  }
  return {Outcome::ModuleFailed, module + " broke off with an error of its own: " + error.what() + ".",
          "Install a version of the module that fits this device."};
}

// A module that could not be asked for its version gives none.
std::string shownVersion(const Json::Value& version) {
  return version.asString().empty() ? "unknown" : version.asString();
}

// "Version 1.0.0 -> 2.0.0 in 4.1 s."
std::string describeChange(const Json::Value& details) {
  const std::string before = shownVersion(details["versionBefore"]);
  const std::string after = shownVersion(details["versionAfter"]);
  char seconds[32];
  std::snprintf(seconds, sizeof seconds, "%.1f s.", details["elapsedSeconds"].asDouble());
  if (before == after) {
    return "Version " + after + " as before, in " + seconds;
  }
  return "Version " + before + " -> " + after + " in " + seconds;
}

// Runs the facade's blocking call on a thread of its own and tells the progress
// until it returns.
void requestUpdate(Report& report, const Options& options, FWUpdateContorl& facade) {
  const std::size_t mark = LibraryLog::instance().mark();
  const Clock::time_point start = Clock::now();
  const InterruptionGuard guard(mark);
  const std::string data = options.requestData();
  const auto reporter = makeProgressReporter(options);
  reporter->start(options);
  supervised::tellStep(Step::Check, options.module);
  auto result = std::async(std::launch::async, [&] {
    return facade.fw_update_from_control(options.module.c_str(), options.caller->type, data.c_str());
  });
  ProgressPoller poller(options.module);
  do {
    const LogMessages messages = LibraryLog::instance().since(mark);
    UpdateProgress progress = progressOf(messages, options.module, start, Clock::now());
    progress.percent = poller.percent();
    reporter->tick(progress);
  } while (result.wait_for(kRedraw) != std::future_status::ready);
  reporter->finish();
  report.moduleRuns = !poller.stop();

  const LogMessages messages = LibraryLog::instance().since(mark);
  try {
    report.details["result"] = result.get();
    report.finding = explainUpdate(report.details["result"].asInt(), messages, options.module);
  } catch (const std::exception& error) {
    report.finding = explainException(error, messages, options.module);
  }
  report.details["elapsedSeconds"] = rounded(secondsSince(start));
  if (const auto limit = timeLimit(messages)) {
    report.details["expectedSeconds"] = limit->expected;
  }
}

}  // namespace

Report runUpdate(const Options& options) {
  Report report;
  report.details["module"] = options.module;
  report.details["caller"] = options.caller->name;
  const Library library = openLibrary();
  if (const auto problem = moduleProblem(library, options.module)) {
    report.finding = *problem;
    return report;
  }

  report.details["versionBefore"] = activeVersion(library, options.module);
  requestUpdate(report, options, *library.facade);

  if (report.finding.outcome == Outcome::TimedOut) {
    report.moduleRuns = true;  // and is not asked anything more
  }
  if (report.finding.outcome == Outcome::Updated) {
    report.details["versionAfter"] = activeVersion(library, options.module);
    report.finding.message += " " + describeChange(report.details);
  }
  return report;
}

}  // namespace tool
