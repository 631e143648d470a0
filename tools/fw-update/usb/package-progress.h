// SPDX-License-Identifier: Apache-2.0
// Tells the progress of one USB package after the other, while the library applies them.
// One per command; used by one thread.
#ifndef FW_UPDATE_TOOL_PACKAGE_PROGRESS_H
#define FW_UPDATE_TOOL_PACKAGE_PROGRESS_H

#include <chrono>
#include <memory>
#include <vector>

#include "command-line.h"
#include "progress/progress-poller.h"
#include "progress/progress-reporter.h"
#include "usb/usb-packages.h"

namespace tool {

class PackageProgress {
 public:
  // Both outlive it.
  PackageProgress(const Options& options, const std::vector<PackageState>& states);

  // messages: since the library began.
  void tick(const LogMessages& messages);
  // False when a module does not answer.
  bool finish();

 private:
  void start(const RunningPackage& running);

  const Options& options_;
  const std::vector<PackageState>& states_;
  std::unique_ptr<ProgressReporter> reporter_;
  std::unique_ptr<ProgressPoller> poller_;
  std::chrono::steady_clock::time_point since_;
};

}  // namespace tool

#endif
