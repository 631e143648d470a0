// SPDX-License-Identifier: Apache-2.0
// How a command can end: one table gives each ending its name in JSON and its
// exit code. A Finding is an ending with its sentences for people.
#ifndef FW_UPDATE_TOOL_OUTCOMES_H
#define FW_UPDATE_TOOL_OUTCOMES_H

#include <string>
#include <string_view>

#include "frame/outcome.h"

namespace tool {

enum class Outcome {
  Ok,
  Updated,
  Unexpected,
  Usage,
  NothingToDo,
  NoSuchModule,
  RefusedImage,
  ModuleFailed,
  TimedOut,
  NotPermitted,
  BrokenModule,
  NoControls,
  AlreadyRunning,
  Stopped,
  NotKnown,
  DownloadFailed,
  LockInUse,
  ModuleCrashed,
  ModuleHung,
  OtherVersion,
};

inline constexpr frame::OutcomeInfo kOutcomeTable[] = {
    {"ok", 0, "done", frame::Tone::Answer},
    {"updated", 0, nullptr, frame::Tone::Success},
    {"unexpected-error", 1, "unexpected", frame::Tone::Failure},
    {"usage", 2, "usage", frame::Tone::Failure},
    {"nothing-to-do", 3, "nothing to do", frame::Tone::Notice},
    {"no-such-module", 4, "no such name", frame::Tone::Failure},
    {"refused-image", 5, "refused image", frame::Tone::Failure},
    {"module-failed", 6, "module failed", frame::Tone::Failure},
    {"timed-out", 7, "timed out", frame::Tone::Failure},
    {"not-permitted", 8, "not allowed", frame::Tone::Failure},
    {"broken-module", 9, "bad module", frame::Tone::Failure},
    {"no-controls-directory", 10, "no modules", frame::Tone::Failure},
    {"already-running", 1, nullptr, frame::Tone::Failure},
    {"stopped", 1, nullptr, frame::Tone::Failure},
    {"not-known", 1, nullptr, frame::Tone::Failure},
    {"download-failed", 11, "no download", frame::Tone::Failure},
    {"lock-in-use", 12, "lock taken", frame::Tone::Failure},
    {"module-crashed", 13, "crash", frame::Tone::Failure},
    {"module-hung", 14, "hang", frame::Tone::Failure},
    {"other-version", 15, "version", frame::Tone::Failure},
};

static_assert(sizeof kOutcomeTable / sizeof kOutcomeTable[0] ==
                  static_cast<std::size_t>(Outcome::OtherVersion) + 1,
              "a row for each outcome, in their order");

constexpr const frame::OutcomeInfo& infoOf(Outcome outcome) {
  return kOutcomeTable[static_cast<std::size_t>(outcome)];
}

// Null when no outcome is called so.
constexpr const frame::OutcomeInfo* findOutcome(std::string_view name) {
  for (const frame::OutcomeInfo& row : kOutcomeTable) {
    if (name == row.id) {
      return &row;
    }
  }
  return nullptr;
}

struct Finding {
  Outcome outcome = Outcome::Unexpected;
  std::string message;  // one sentence: what happened
  std::string remedy;   // what to do about it; may be empty
};

}  // namespace tool

#endif
