// SPDX-License-Identifier: Apache-2.0
#include "update-all/run-follower.h"

#include <chrono>
#include <optional>

namespace tool {

RunFollower::RunFollower(const std::vector<PlannedModule>& all, RunReporter& reporter, RunNote& note,
                         std::size_t logMark)
    : planned_(all), reporter_(reporter), note_(note), mark_(logMark) {}

void RunFollower::tick(bool interrupted) {
  const Run run = currentRun();
  tellEnded(run);
  if (begunOf(run) != begun_) {
    begin(run);
  }
  const RunProgress progress =
      runProgressOf(run, poller_ ? poller_->percent() : std::nullopt, std::chrono::steady_clock::now());
  if (interrupted && !interruptionTold_) {
    interruptionTold_ = true;
    reporter_.goesOn(progress);
  }
  // Between the last module and the end there is nothing to draw.
  if (begun_ > 0 && !hasEnded(run, begun_ - 1)) {
    reporter_.tick(progress);
  }
}

bool RunFollower::finish() {
  tellEnded(currentRun());
  stopPolling();
  reporter_.finish();
  return moduleRuns_;
}

Run RunFollower::currentRun() const {
  return runOf(planned_, LibraryLog::instance().since(mark_));
}

void RunFollower::tellEnded(const Run& run) {
  for (; told_ < run.size() && hasEnded(run, told_); ++told_) {
    const Finding finding = resultOf(run, told_);
    moduleRuns_ = moduleRuns_ || finding.outcome == Outcome::TimedOut;
    reporter_.moduleEnded(told_ + 1, run[told_].planned, finding);
  }
}

void RunFollower::begin(const Run& run) {
  begun_ = begunOf(run);
  std::vector<std::string> libraries;
  for (const RunModule& module : run) {
    libraries.push_back(module.planned.library);
  }
  note_.moduleStarted(begun_, libraries);
  stopPolling();
  poller_ = std::make_unique<ProgressPoller>(libraries[begun_ - 1]);
}

void RunFollower::stopPolling() {
  if (poller_ && !poller_->stop()) {
    moduleRuns_ = true;
  }
  poller_.reset();
}

}  // namespace tool
