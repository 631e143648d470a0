// SPDX-License-Identifier: Apache-2.0
// How far an update-all run is, by what the library has logged. Pure: no clock, no
// terminal.
#ifndef FW_UPDATE_TOOL_RUN_PROGRESS_H
#define FW_UPDATE_TOOL_RUN_PROGRESS_H

#include <chrono>
#include <cstddef>
#include <optional>
#include <string>
#include <vector>

#include "library/library-log.h"
#include "progress/update-progress.h"
#include "update-all/update-plan.h"

namespace tool {

// One module's turn.
struct Turn {
  fwmessages::Update update;  // the library names only the firmware
  LogMessages messages;       // its own and its worker's, also those that came late

  // In seconds, when it is over.
  std::optional<double> duration() const;
};

// One module of a run.
struct RunModule {
  PlannedModule planned;
  LogMessages asked;         // when the run itself asked whether it needs an update
  std::optional<Turn> turn;  // when it has begun
};

// The modules of a run, in its order: those that were to be updated, and those whose
// turn came all the same. The run asks every module anew, and one may answer otherwise
// than it did for the plan; so a turn is known by the firmware that the library names.
// planned: all modules, in the library's order.
using Run = std::vector<RunModule>;
Run runOf(const std::vector<PlannedModule>& planned, const LogMessages& messages);

// How many modules have had their turn, or were passed over; the last of them may be
// at it.
std::size_t begunOf(const Run& run);
bool hasEnded(const Run& run, std::size_t index);

// How a module's update ended, as far as is known.
Finding resultOf(const Run& run, std::size_t index);

struct RunProgress {
  std::size_t number = 0;  // the module whose turn it is, from 1; 0 before the first
  std::size_t count = 0;
  UpdateProgress module;
  unsigned int totalPercent = 0;  // of the expected time
  double secondsLeft = 0;
  std::size_t modulesLeft = 0;  // the one whose turn it is included
};

RunProgress runProgressOf(const Run& run, std::optional<unsigned int> percent,
                          std::chrono::steady_clock::time_point now);

// "2/5 libpanel: 30 %, 3 s of about 10 s; in total 35 %, about 50 s left"
std::string plainLine(const RunProgress& progress);
// The live line, at most width characters.
std::string liveLine(const RunProgress& progress, std::size_t width);

}  // namespace tool

#endif
