// SPDX-License-Identifier: Apache-2.0
// What an update-all run would do: which modules, for how long, and why the others
// are left out. Made by asking every module as the library does before a run; a
// plain value afterwards.
#ifndef FW_UPDATE_TOOL_UPDATE_PLAN_H
#define FW_UPDATE_TOOL_UPDATE_PLAN_H

#include <optional>
#include <string>
#include <vector>

#include "library/library.h"
#include "outcomes.h"

namespace tool {

struct PlannedModule {
  std::string library;
  std::string firmware;
  std::string version;
  bool due = false;
  unsigned int expectedSeconds = 0;  // when due
  Finding reason;                    // when not due
};

struct UpdatePlan {
  std::vector<PlannedModule> modules;  // in the library's order
  std::optional<Finding> problem;      // what keeps the run from starting

  std::vector<PlannedModule> due() const;
  double expectedSeconds() const;
  // As the library computes it, 32 bits wide: absurd times can make it 0 or less.
  int powerHoldMs() const;
};

// leaveNoTrace: extension packages that were not mounted before are unmounted.
UpdatePlan makePlan(const Library& library, bool leaveNoTrace);

// "105 s", or what stands for a time of 0 or less.
std::string powerHoldText(const UpdatePlan& plan);

}  // namespace tool

#endif
