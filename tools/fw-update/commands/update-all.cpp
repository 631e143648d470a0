// SPDX-License-Identifier: Apache-2.0
// fw-update update-all
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <exception>
#include <future>
#include <list>
#include <optional>

#include "commands.h"
#include "commands/texts.h"
#include "device-paths.h"
#include "fw-update-symbol-manager.h"
#include "isolation/supervised.h"
#include "library/library.h"
#include "lock/interruption.h"
#include "record/update-record.h"
#include "report.h"
#include "terminal.h"
#include "update-all/run-follower.h"
#include "update-all/run-note.h"
#include "update-all/run-progress.h"
#include "update-all/run-reporter.h"
#include "update-all/update-plan.h"

namespace tool {
namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::milliseconds kRedraw{100};

// The ending of the whole run: the first of these that a module had.
constexpr Outcome kSeverity[] = {Outcome::ModuleFailed, Outcome::TimedOut,     Outcome::NotPermitted,
                                 Outcome::RefusedImage, Outcome::BrokenModule, Outcome::Unexpected,
                                 Outcome::NothingToDo};

// A module of a run, when the run is over.
struct EndedModule {
  PlannedModule planned;
  Finding finding;
  std::optional<double> seconds;
  std::optional<std::string> versionAfter;

  bool isUpdated() const { return finding.outcome == Outcome::Updated; }
};

struct EndedRun {
  std::vector<EndedModule> modules;
  Finding finding;
  double seconds = 0;
  std::optional<int> result;  // the library's
  std::string warning;        // may be empty
  bool moduleRuns = false;    // a thread is still inside a module
};

std::string secondsText(double seconds) {
  char text[32];
  std::snprintf(text, sizeof text, "%.1f s", seconds);
  return text;
}

// Marks the registry's modules, and leaves the list for others to read. A list
// that cannot be written, a link in its place say, keeps nothing from being updated.
std::string markModules() {
  FWUpdateSymbolManager& manager = *FWUpdateSymbolManager::getInstance();
  bool running = true;
  if (manager.writeFirmwareUpdateList(running) >= 0) {
    return "";
  }
  std::list<FWUpdateItem> items;
  char noData[] = "";
  manager.getUpdateFwItems(items, CALLER_QUERY, noData);
  return std::string("The pending list ") + fwpaths::kPendingList + " could not be written.";
}

// A module that failed may still be busy; only one that is done is asked.
std::string versionAfter(const Library& library, const std::string& module) {
  supervised::tellStep(Step::Version, module);
  char version[128] = {};
  return library.facade->fw_getVersion(module.c_str(), version) == 0 ? version : "";
}

std::vector<EndedModule> endedModules(const Library& library, const Run& run) {
  std::vector<EndedModule> modules;
  for (std::size_t i = 0; i < run.size(); ++i) {
    EndedModule module{run[i].planned, resultOf(run, i), std::nullopt, std::nullopt};
    if (const auto seconds = run[i].turn ? run[i].turn->duration() : std::nullopt) {
      module.seconds = rounded(*seconds);
    }
    if (module.isUpdated()) {
      module.versionAfter = versionAfter(library, module.planned.library);
    }
    modules.push_back(module);
  }
  return modules;
}

Outcome worstOf(const std::vector<EndedModule>& modules) {
  for (const Outcome outcome : kSeverity) {
    if (std::any_of(modules.begin(), modules.end(),
                    [=](const EndedModule& module) { return module.finding.outcome == outcome; })) {
      return outcome;
    }
  }
  return Outcome::Unexpected;
}

Finding summary(const std::vector<EndedModule>& modules, double elapsed) {
  std::string left;
  std::size_t updated = 0;
  for (const EndedModule& module : modules) {
    if (module.isUpdated()) {
      ++updated;
      continue;
    }
    left +=
        (left.empty() ? "" : ", ") + module.planned.library + " (" + infoOf(module.finding.outcome).id + ")";
  }
  Finding finding{Outcome::Updated,
                  std::to_string(updated) + " of " + std::to_string(modules.size()) +
                      " modules were updated, in " + secondsText(elapsed) + ".",
                  ""};
  if (!left.empty()) {
    finding.outcome = worstOf(modules);
    finding.message += " Not updated: " + left + ".";
    finding.remedy = "The modules that are left can be tried again: fw-update update-all";
  }
  return finding;
}

void takeResult(EndedRun& ended, std::future<int>& result, RunNote& note) {
  try {
    ended.result = result.get();
    note.finished();
  } catch (const std::exception& error) {
    ended.finding = {
        Outcome::ModuleFailed,
        std::string("A module broke off the run with an error of its own: ") + error.what() + ".",
        "The modules after it were not updated, and the modules were not told that the run is "
        "over: fw-update all-done does that."};
  }
}

void noteStart(const UpdatePlan& plan, RunNote& note) {
  std::vector<std::string> names;
  for (const PlannedModule& module : plan.due()) {
    names.push_back(module.library);
  }
  note.runStarted(names);
}

// Runs the library's own operation on a thread of its own, and follows it.
EndedRun performRun(const Options& options, const Library& library, const UpdatePlan& plan, RunNote& note) {
  EndedRun ended;
  noteStart(plan, note);
  const auto reporter = recorded(makeRunReporter(options));
  reporter->start(plan);
  const std::size_t mark = LibraryLog::instance().mark();
  std::atomic<bool> interrupted{false};
  const InterruptionGuard guard(mark, [&interrupted] { interrupted = true; });
  const Clock::time_point start = Clock::now();
  auto result = std::async(std::launch::async, [&ended] {
    ended.warning = markModules();
    return FWUpdateSymbolManager::getInstance()->doUpdateFirmwareAll(CALLER_QUERY);
  });
  RunFollower follower(plan.modules, *reporter, note, mark);
  do {
    follower.tick(interrupted);
  } while (result.wait_for(kRedraw) != std::future_status::ready);
  ended.moduleRuns = follower.finish();
  ended.seconds = std::chrono::duration<double>(Clock::now() - start).count();
  ended.modules = endedModules(library, follower.currentRun());
  ended.finding = summary(ended.modules, ended.seconds);
  takeResult(ended, result, note);
  return ended;
}

// ---- The report -------------------------------------------------------------------

Json::Value membersOf(const UpdatePlan& plan) {
  Json::Value members;
  members["modules"] = Json::arrayValue;
  for (const PlannedModule& module : plan.modules) {
    members["modules"].append(planJson(module));
  }
  if (plan.problem) {
    return members;
  }
  members["expectedSeconds"] = plan.expectedSeconds();
  if (!plan.due().empty()) {
    members["powerHoldMs"] = plan.powerHoldMs();
  }
  return members;
}

// Of a plan that is not carried out.
frame::Report reportOf(const UpdatePlan& plan) {
  const std::size_t due = plan.due().size();
  const Finding answer = due == 0
                             ? Finding{Outcome::NothingToDo, "No module needs an update.", ""}
                             : Finding{Outcome::Ok, std::to_string(due) + " modules would be updated.", ""};
  frame::Report report = reportOf(plan.problem.value_or(answer));
  report.details = membersOf(plan);
  report.body = updateAllText(report);
  return report;
}

Json::Value endedJson(const EndedModule& module) {
  Json::Value value = planJson(module.planned);
  addTo(value, module.finding);
  if (module.seconds) {
    value["elapsedSeconds"] = *module.seconds;
  }
  if (module.versionAfter) {
    value["versionAfter"] = *module.versionAfter;
  }
  return value;
}

bool isPartOf(const EndedRun& run, const PlannedModule& module) {
  return std::any_of(run.modules.begin(), run.modules.end(),
                     [&module](const EndedModule& part) { return part.planned.library == module.library; });
}

// The run's modules first.
Json::Value modulesJson(const UpdatePlan& plan, const EndedRun& run) {
  Json::Value modules(Json::arrayValue);
  for (const EndedModule& module : run.modules) {
    modules.append(endedJson(module));
  }
  for (const PlannedModule& module : plan.modules) {
    if (!isPartOf(run, module)) {
      modules.append(planJson(module));
    }
  }
  return modules;
}

// Those that were due are the run's.
std::string resultTable(const Json::Value& modules) {
  std::vector<std::vector<std::string>> rows{{"LIBRARY", "RESULT", "VERSION", "TIME", "WHY"}};
  for (const Json::Value& module : modules) {
    if (!module["due"].asBool()) {
      continue;
    }
    const std::string after = module.isMember("versionAfter") ? " -> " + textIn(module, "versionAfter") : "";
    const Json::Value& seconds = module["elapsedSeconds"];
    rows.push_back({textIn(module, "library"), textIn(module, "outcome"),
                    textIn(module, "versionBefore") + after,
                    seconds.isNumeric() ? secondsText(seconds.asDouble()) : "-", textIn(module, "message")});
  }
  return table(rows, terminalWidth(STDOUT_FILENO));
}

frame::Report reportOf(const UpdatePlan& plan, const EndedRun& run) {
  frame::Report report = reportOf(run.finding);
  report.endsAtOnce = run.moduleRuns;
  report.details = membersOf(plan);
  report.details["modules"] = modulesJson(plan, run);
  report.details["elapsedSeconds"] = rounded(run.seconds);
  if (run.result) {
    report.details["result"] = *run.result;
  }
  if (!run.warning.empty()) {
    report.details["warning"] = run.warning;
  }
  report.body = updateAllText(report);
  return report;
}

frame::Report planAndRun(const Options& options) {
  const Library library = openLibrary();
  if (library.problem) {
    return reportOf(*library.problem);
  }
  // Before the plan: asking a module mounts its package anew, under the other run's feet.
  RunNote note;
  if (note.otherRuns()) {
    return reportOf(
        Finding{Outcome::AlreadyRunning, "Another update-all is running.", "Wait until it has ended."});
  }
  const UpdatePlan plan = makePlan(library, options.dryRun);
  if (plan.problem || plan.due().empty() || options.dryRun) {
    return reportOf(plan);
  }
  return reportOf(plan, performRun(options, library, plan, note));
}

}  // namespace

std::string updateAllText(const frame::Report& report) {
  const Json::Value& details = report.details;
  if (!details.isMember("expectedSeconds")) {  // there is no plan
    return "";
  }
  return details.isMember("elapsedSeconds") ? resultTable(details["modules"]) : describePlan(planIn(details));
}

frame::Report runUpdateAll(const Options& options) {
  frame::Report report = planAndRun(options);
  report.details["dryRun"] = options.dryRun;
  return report;
}

}  // namespace tool
