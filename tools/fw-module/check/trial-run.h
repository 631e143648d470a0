// SPDX-License-Identifier: Apache-2.0
// Runs one trial in a child process, on a device of its own, and says what came of it.
// For a process with one thread.
#ifndef FW_MODULE_CHECK_TRIAL_RUN_H
#define FW_MODULE_CHECK_TRIAL_RUN_H

#include <chrono>
#include <map>
#include <string>
#include <vector>

#include "checks.h"
#include "entry-points.h"
#include "subject.h"
#include "transcript.h"
#include "trials/trials.h"

namespace fwmodule {

struct Finding {
  Check check;
  EntryPoint entryPoint;
  std::string message;
};

struct TrialResult {
  std::vector<Finding> findings;
  std::vector<Check> passed;
  std::map<Check, std::string> notChecked;
  std::map<Fact, std::string> facts;
  // Where the trial ended before its end: in this entry point.
  EntryPoint broken = EntryPoint::Nowhere;
  std::string cutOff;  // the sentence about that; empty when the trial reached its end
};

// A call that lasts longer than the limit counts as hung; the child is killed then. Nothing
// that the module started is left. Throws Failure when there can be no trial here, and
// tool::Interrupted when a signal came that is to end the command.
TrialResult runTrial(const Trial& trial, const Subject& subject, std::chrono::seconds limit);

}  // namespace fwmodule

#endif
