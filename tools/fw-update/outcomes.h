// How a command can end: one table gives each ending its name in JSON and its
// exit code. A Finding is an ending with its sentences for people.
#ifndef FW_UPDATE_TOOL_OUTCOMES_H
#define FW_UPDATE_TOOL_OUTCOMES_H

#include <string>

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
};

struct OutcomeInfo {
  Outcome outcome;
  const char* id;  // in JSON
  int exitCode;
};

inline constexpr OutcomeInfo kOutcomeTable[] = {
    {Outcome::Ok, "ok", 0},
    {Outcome::Updated, "updated", 0},
    {Outcome::Unexpected, "unexpected-error", 1},
    {Outcome::Usage, "usage", 2},
    {Outcome::NothingToDo, "nothing-to-do", 3},
    {Outcome::NoSuchModule, "no-such-module", 4},
    {Outcome::RefusedImage, "refused-image", 5},
    {Outcome::ModuleFailed, "module-failed", 6},
    {Outcome::TimedOut, "timed-out", 7},
    {Outcome::NotPermitted, "not-permitted", 8},
    {Outcome::BrokenModule, "broken-module", 9},
    {Outcome::NoControls, "no-controls-directory", 10},
    {Outcome::AlreadyRunning, "already-running", 1},
    {Outcome::Stopped, "stopped", 1},
    {Outcome::NotKnown, "not-known", 1},
    {Outcome::DownloadFailed, "download-failed", 11},
    {Outcome::LockInUse, "lock-in-use", 12},
    {Outcome::ModuleCrashed, "module-crashed", 13},
    {Outcome::ModuleHung, "module-hung", 14},
};

constexpr const OutcomeInfo& infoOf(Outcome outcome) {
  for (const OutcomeInfo& info : kOutcomeTable) {
    if (info.outcome == outcome) {
      return info;
    }
  }
  return kOutcomeTable[2];
}

struct Finding {
  Outcome outcome = Outcome::Unexpected;
  std::string message;  // one sentence: what happened
  std::string remedy;   // what to do about it; may be empty
};

}  // namespace tool

#endif
