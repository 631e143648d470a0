// SPDX-License-Identifier: Apache-2.0
// Follows one run over all modules from beside it: what the library logs tells whose turn it
// is. One per run; used by one thread.
#ifndef FW_UPDATE_TOOL_RUN_FOLLOWER_H
#define FW_UPDATE_TOOL_RUN_FOLLOWER_H

#include <cstddef>
#include <memory>
#include <vector>

#include "progress/progress-poller.h"
#include "update-all/run-note.h"
#include "update-all/run-progress.h"
#include "update-all/run-reporter.h"

namespace tool {

class RunFollower {
 public:
  // all: every module, in the library's order. logMark: where the run's messages begin.
  RunFollower(const std::vector<PlannedModule>& all, RunReporter& reporter, RunNote& note,
              std::size_t logMark);

  void tick(bool interrupted);
  // True when a thread is still inside a module.
  bool finish();
  Run currentRun() const;

 private:
  void tellEnded(const Run& run);
  void begin(const Run& run);
  void stopPolling();

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

}  // namespace tool

#endif
