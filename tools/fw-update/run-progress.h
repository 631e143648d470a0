// How far an update-all run is, by what the library has logged. Pure: no clock, no
// terminal.
#ifndef FW_UPDATE_TOOL_RUN_PROGRESS_H
#define FW_UPDATE_TOOL_RUN_PROGRESS_H

#include <chrono>
#include <cstddef>
#include <optional>
#include <vector>

#include "library-log.h"
#include "update-plan.h"
#include "update-progress.h"

namespace tool {

// One module's turn.
struct Turn {
  LogMessages messages;  // its own and its worker's, also those that came late
  std::chrono::steady_clock::time_point start;
  std::optional<std::chrono::steady_clock::time_point> end;
};

// The turns that have begun, in the order of the run's modules.
std::vector<Turn> turnsOf(const LogMessages& messages);

// How a turn ended, as far as is known. index: into both; a turn that never began
// is no turn.
Finding resultOf(const std::vector<Turn>& turns, const std::vector<PlannedModule>& due, std::size_t index);

struct RunProgress {
  std::size_t number = 0;  // the module whose turn it is, from 1; 0 before the first
  std::size_t count = 0;
  UpdateProgress module;
  unsigned int totalPercent = 0;  // of the expected time
  double secondsLeft = 0;
  std::size_t modulesLeft = 0;  // the one whose turn it is included
};

RunProgress runProgressOf(const std::vector<PlannedModule>& due, const std::vector<Turn>& turns,
                          std::optional<unsigned int> percent, std::chrono::steady_clock::time_point now);

// "2/5 libpanel: 30 %, 3 s of about 10 s; in total 35 %, about 50 s left"
std::string plainLine(const RunProgress& progress);
// The live line, at most width characters.
std::string liveLine(const RunProgress& progress, std::size_t width);

}  // namespace tool

#endif
