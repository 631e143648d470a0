// SPDX-License-Identifier: Apache-2.0
// Tells how an update-all run goes while it runs, in the way that the output wants.
// One per run; used by one thread.
#ifndef FW_UPDATE_TOOL_RUN_REPORTER_H
#define FW_UPDATE_TOOL_RUN_REPORTER_H

#include <memory>

#include "command-line.h"
#include "update-all/run-progress.h"
#include "update-all/update-plan.h"

namespace tool {

class RunReporter {
 public:
  virtual ~RunReporter() = default;
  RunReporter() = default;
  RunReporter(const RunReporter&) = delete;
  RunReporter& operator=(const RunReporter&) = delete;

  virtual void start(const UpdatePlan&) {}
  virtual void tick(const RunProgress&) {}
  // number: from 1.
  virtual void moduleEnded(std::size_t, const PlannedModule&, const Finding&) {}
  // The first Ctrl-C.
  virtual void goesOn(const RunProgress&) {}
  // Leaves the terminal as it was.
  virtual void finish() {}
};

std::unique_ptr<RunReporter> makeRunReporter(const Options& options);

// The list of modules with their expected times, and what the whole will take.
std::string describePlan(const UpdatePlan& plan);
Json::Value planJson(const PlannedModule& module);
// From the list of such values that an event or a document has; with their sentences, and no more.
UpdatePlan planIn(const Json::Value& members);

}  // namespace tool

#endif
