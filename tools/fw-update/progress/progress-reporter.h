// SPDX-License-Identifier: Apache-2.0
// Tells how an update goes while it runs, in the way that the output wants. One
// per update; used by one thread.
#ifndef FW_UPDATE_TOOL_PROGRESS_REPORTER_H
#define FW_UPDATE_TOOL_PROGRESS_REPORTER_H

#include <memory>

#include "command-line.h"
#include "progress/update-progress.h"

namespace tool {

class ProgressReporter {
 public:
  virtual ~ProgressReporter() = default;
  ProgressReporter() = default;
  ProgressReporter(const ProgressReporter&) = delete;
  ProgressReporter& operator=(const ProgressReporter&) = delete;

  virtual void start(const Options&) {}
  virtual void tick(const UpdateProgress&) {}
  // After the module's work: whether the new version is active is looked at.
  virtual void verifying() {}
  // Leaves the terminal as it was.
  virtual void finish() {}
};

std::unique_ptr<ProgressReporter> makeProgressReporter(const Options& options);

}  // namespace tool

#endif
