// SPDX-License-Identifier: Apache-2.0
#include "usb/package-progress.h"

#include "frame/report.h"

namespace tool {

using Clock = std::chrono::steady_clock;

PackageProgress::PackageProgress(const Options& options, const std::vector<PackageState>& states)
    : options_(options), states_(states) {}

void PackageProgress::tick(const LogMessages& messages) {
  const auto running = runningPackage(states_, messages);
  if (running && running->since != since_) {
    start(*running);
  }
  if (!running || !poller_) {
    return;
  }
  const PackageState& state = states_[running->index];
  UpdateProgress progress;
  progress.module = state.library;
  progress.phase = Phase::Updating;
  progress.elapsed = std::chrono::duration<double>(Clock::now() - running->since).count();
  progress.percent = poller_->percent();
  progress.limit = TimeLimit{static_cast<unsigned int>(state.seconds), 0};
  reporter_->tick(progress);
}

bool PackageProgress::finish() {
  if (reporter_) {
    reporter_->finish();
  }
  const bool answered = !poller_ || poller_->stop();
  poller_.reset();
  return answered;
}

void PackageProgress::start(const RunningPackage& running) {
  finish();
  since_ = running.since;
  const std::string& module = states_[running.index].library;
  reporter_ = makeProgressReporter(options_);
  poller_ = std::make_unique<ProgressPoller>(module);
  if (options_.ndjson) {
    Json::Value event;
    event["event"] = "start";
    event["module"] = module;
    frame::putEvent(event);
  }
}

}  // namespace tool
