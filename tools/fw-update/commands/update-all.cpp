// fw-update update-all
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <exception>
#include <future>
#include <list>
#include <memory>

#include "commands.h"
#include "fw-update-symbol-manager.h"
#include "isolation/supervised.h"
#include "library/library.h"
#include "lock/interruption.h"
#include "progress/progress-poller.h"
#include "terminal.h"
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

std::string secondsText(double seconds) {
  char text[32];
  std::snprintf(text, sizeof text, "%.1f s", seconds);
  return text;
}

// Follows one run from beside it: what the library logs tells whose turn it is.
class RunFollower {
 public:
  RunFollower(const std::vector<PlannedModule>& all, RunReporter& to, RunNote& into, std::size_t logMark)
      : planned_(all), reporter_(to), note_(into), mark_(logMark) {}

  void tick(bool interrupted) {
    const Run run = currentRun();
    tellEnded(run);
    if (begunOf(run) != begun_) {
      begin(run);
    }
    const RunProgress progress =
        runProgressOf(run, poller_ ? poller_->percent() : std::nullopt, Clock::now());
    if (interrupted && !interruptionTold_) {
      interruptionTold_ = true;
      reporter_.goesOn(progress);
    }
    // Between the last module and the end there is nothing to draw.
    if (begun_ > 0 && !hasEnded(run, begun_ - 1)) {
      reporter_.tick(progress);
    }
  }

  // True when a thread is still inside a module.
  bool finish() {
    tellEnded(currentRun());
    stopPolling();
    reporter_.finish();
    return moduleRuns_;
  }

  Run currentRun() const { return runOf(planned_, LibraryLog::instance().since(mark_)); }

 private:
  void tellEnded(const Run& run) {
    for (; told_ < run.size() && hasEnded(run, told_); ++told_) {
      const Finding finding = resultOf(run, told_);
      moduleRuns_ = moduleRuns_ || finding.outcome == Outcome::TimedOut;
      reporter_.moduleEnded(told_ + 1, run[told_].planned, finding);
    }
  }

  void begin(const Run& run) {
    begun_ = begunOf(run);
    std::vector<std::string> libraries;
    for (const RunModule& module : run) {
      libraries.push_back(module.planned.library);
    }
    note_.moduleStarted(begun_, libraries);
    stopPolling();
    poller_ = std::make_unique<ProgressPoller>(libraries[begun_ - 1]);
  }

  void stopPolling() {
    if (poller_ && !poller_->stop()) {
      moduleRuns_ = true;
    }
    poller_.reset();
  }

  const std::vector<PlannedModule> planned_;
  RunReporter& reporter_;
  RunNote& note_;
  const std::size_t mark_;
  std::unique_ptr<ProgressPoller> poller_;
  std::size_t begun_ = 0;
  std::size_t told_ = 0;
  bool interruptionTold_ = false;
  bool moduleRuns_ = false;
};

// Marks the registry's modules, and leaves the list for others to read. A list
// that cannot be written, a link in its place say, keeps nothing from being updated.
void markModules(Report& report) {
  FWUpdateSymbolManager& manager = *FWUpdateSymbolManager::getInstance();
  bool running = true;
  if (manager.writeFirmwareUpdateList(running) >= 0) {
    return;
  }
  report.details["warning"] = "The pending list /tmp/fwupdate-off-list.txt could not be written.";
  std::list<FWUpdateItem> items;
  char noData[] = "";
  manager.getUpdateFwItems(items, CALLER_QUERY, noData);
}

Json::Value endedJson(const RunModule& module, const Finding& finding) {
  Json::Value value = planJson(module.planned);
  value["outcome"] = infoOf(finding.outcome).id;
  value["message"] = finding.message;
  if (!finding.remedy.empty()) {
    value["remedy"] = finding.remedy;
  }
  if (const auto seconds = module.turn ? module.turn->duration() : std::nullopt) {
    value["elapsedSeconds"] = rounded(*seconds);
  }
  return value;
}

// A module that failed may still be busy; only one that is done is asked.
std::string versionAfter(const Library& library, const std::string& module) {
  supervised::tellStep(Step::Version, module);
  char version[128] = {};
  return library.facade->fw_getVersion(module.c_str(), version) == 0 ? version : "";
}

Finding summary(const std::vector<Finding>& findings, const Run& run, double elapsed) {
  const auto isUpdated = [](const Finding& finding) { return finding.outcome == Outcome::Updated; };
  const auto updated = std::count_if(findings.begin(), findings.end(), isUpdated);
  Finding whole;
  whole.message = std::to_string(updated) + " of " + std::to_string(run.size()) +
                  " modules were updated, in " + secondsText(elapsed) + ".";
  if (static_cast<std::size_t>(updated) == run.size()) {
    whole.outcome = Outcome::Updated;
    return whole;
  }
  for (const Outcome outcome : kSeverity) {
    if (std::none_of(findings.begin(), findings.end(),
                     [=](const Finding& f) { return f.outcome == outcome; })) {
      continue;
    }
    whole.outcome = outcome;
    break;
  }
  whole.message += " Not updated:";
  for (std::size_t i = 0; i < findings.size(); ++i) {
    if (!isUpdated(findings[i])) {
      whole.message += (whole.message.back() == ':' ? " " : ", ") + run[i].planned.library + " (" +
                       infoOf(findings[i].outcome).id + ")";
    }
  }
  whole.message += ".";
  whole.remedy = "The modules that are left can be tried again: fw-update update-all";
  return whole;
}

bool isPartOf(const Run& run, const PlannedModule& module) {
  return std::any_of(run.begin(), run.end(),
                     [&module](const RunModule& part) { return part.planned.library == module.library; });
}

void tellResults(Report& report, const Library& library, const UpdatePlan& plan, const Run& run,
                 double elapsed) {
  std::vector<std::vector<std::string>> rows{{"LIBRARY", "RESULT", "VERSION", "TIME", "WHY"}};
  std::vector<Finding> findings;
  report.details["modules"] = Json::arrayValue;
  for (std::size_t i = 0; i < run.size(); ++i) {
    const PlannedModule& module = run[i].planned;
    const Finding finding = resultOf(run, i);
    Json::Value value = endedJson(run[i], finding);
    std::string version = module.version;
    if (finding.outcome == Outcome::Updated) {
      value["versionAfter"] = versionAfter(library, module.library);
      version += " -> " + value["versionAfter"].asString();
    }
    rows.push_back({module.library, infoOf(finding.outcome).id, version,
                    value.isMember("elapsedSeconds") ? secondsText(value["elapsedSeconds"].asDouble()) : "-",
                    finding.message});
    report.details["modules"].append(value);
    findings.push_back(finding);
  }
  for (const PlannedModule& module : plan.modules) {
    if (!isPartOf(run, module)) {
      report.details["modules"].append(planJson(module));
    }
  }
  report.details["elapsedSeconds"] = rounded(elapsed);
  report.body = table(rows, terminalWidth(STDOUT_FILENO));
  report.finding = summary(findings, run, elapsed);
}

void performRun(Report& report, const Options& options, const Library& library, const UpdatePlan& plan,
                RunNote& note) {
  std::vector<std::string> names;
  for (const PlannedModule& module : plan.due()) {
    names.push_back(module.library);
  }
  note.runStarted(names);
  const auto reporter = makeRunReporter(options);
  reporter->start(plan);
  const std::size_t mark = LibraryLog::instance().mark();
  std::atomic<bool> interrupted{false};
  const InterruptionGuard guard(mark, [&interrupted] { interrupted = true; });
  const Clock::time_point start = Clock::now();
  auto result = std::async(std::launch::async, [&report] {
    markModules(report);
    return FWUpdateSymbolManager::getInstance()->doUpdateFirmwareAll(CALLER_QUERY);
  });
  RunFollower follower(plan.modules, *reporter, note, mark);
  do {
    follower.tick(interrupted);
  } while (result.wait_for(kRedraw) != std::future_status::ready);
  report.moduleRuns = follower.finish();

  const double elapsed = std::chrono::duration<double>(Clock::now() - start).count();
  tellResults(report, library, plan, follower.currentRun(), elapsed);
  try {
    report.details["result"] = result.get();
    note.finished();
  } catch (const std::exception& error) {
    report.finding = {
        Outcome::ModuleFailed,
        std::string("A module broke off the run with an error of its own: ") + error.what() + ".",
        "The modules after it were not updated, and the modules were not told that the run is "
        "over: fw-update all-done does that."};
  }
}

}  // namespace

Report runUpdateAll(const Options& options) {
  Report report;
  report.details["dryRun"] = options.dryRun;
  const Library library = openLibrary();
  if (library.problem) {
    report.finding = *library.problem;
    return report;
  }
  // Before the plan: asking a module mounts its package anew, under the other run's feet.
  RunNote note;
  if (note.otherRuns()) {
    report.finding = {Outcome::AlreadyRunning, "Another update-all is running.", "Wait until it has ended."};
    return report;
  }
  const UpdatePlan plan = makePlan(library, options.dryRun);
  report.details["modules"] = Json::arrayValue;
  for (const PlannedModule& module : plan.modules) {
    report.details["modules"].append(planJson(module));
  }
  if (plan.problem) {
    report.finding = *plan.problem;
    return report;
  }
  report.details["expectedSeconds"] = plan.expectedSeconds();
  if (plan.due().empty()) {
    report.body = describePlan(plan);
    report.finding = {Outcome::NothingToDo, "No module needs an update.", ""};
    return report;
  }
  report.details["powerHoldMs"] = plan.powerHoldMs();
  if (options.dryRun) {
    report.body = describePlan(plan);
    report.finding = {Outcome::Ok, std::to_string(plan.due().size()) + " modules would be updated.", ""};
    return report;
  }
  performRun(report, options, library, plan, note);
  return report;
}

}  // namespace tool
