// SPDX-License-Identifier: Apache-2.0
// How far an update is, at one moment, and the lines that tell it. Pure: no
// clock, no terminal.
#ifndef FW_UPDATE_TOOL_UPDATE_PROGRESS_H
#define FW_UPDATE_TOOL_UPDATE_PROGRESS_H

#include <chrono>
#include <cstddef>
#include <optional>
#include <string>

#include "library/library-log.h"
#include "library/log-meanings.h"

namespace tool {

enum class Phase {
  Checking,  // the image is located and checked
  Waiting,   // another update on the device holds the lock
  Updating,  // the module works
};

struct UpdateProgress {
  std::string module;
  Phase phase = Phase::Checking;
  double elapsed = 0;  // seconds in this phase
  std::optional<unsigned int> percent;
  std::optional<TimeLimit> limit;  // none while checking, and for EXT modules

  bool overdue() const {
    return phase == Phase::Updating && limit && elapsed > static_cast<double>(limit->expected);
  }
};

// Where an update that began at start is, by what the library has logged.
UpdateProgress progressOf(const LogMessages& messages, const std::string& module,
                          std::chrono::steady_clock::time_point start,
                          std::chrono::steady_clock::time_point now);

// "3 s of about 10 s", or how long it is overdue and when the library gives up.
std::string timeText(const UpdateProgress& progress);

// "libtuner: 30 %, 3 s of about 10 s": one line of its own.
std::string plainLine(const UpdateProgress& progress);

// The live line, at most width characters: module, bar, percent and time. What
// does not fit is left out, the bar first.
std::string liveLine(const UpdateProgress& progress, std::size_t width);

}  // namespace tool

#endif
