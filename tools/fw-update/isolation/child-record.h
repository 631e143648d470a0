// SPDX-License-Identifier: Apache-2.0
// What a command in a child process has told of itself: in memory that it shares with the
// process that watches over it, so that it is there whatever becomes of the child. What a
// hang and a set without traces need, and no more. Plain data and functions.
#ifndef FW_UPDATE_TOOL_CHILD_RECORD_H
#define FW_UPDATE_TOOL_CHILD_RECORD_H

#include <atomic>
#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace tool {

enum class Step : std::uint32_t {
  Start,      // all modules are loaded, no one in particular
  Load,       // the module is loaded and says who it is
  Version,    // it is asked for its version
  Check,      // it is asked whether it needs the image
  Wait,       // its update waits for the lock
  Write,      // it updates
  Procedure,  // it runs its own procedure
  Package,    // it writes a package's image
  Finish,     // its update is over
  End,        // the command has its result
};

// A module may write anything anywhere: nothing in it is trusted. Zero-filled at first.
struct ChildRecord {
  std::atomic<std::uint32_t> told;  // grows whenever the child gets on
  std::atomic<Step> step;
  std::atomic<std::uint32_t> givesUpAt;         // seconds and 1: when the library does; 0: not asked
  std::atomic<std::uint32_t> askedForProgress;  // it may have been that as well
  std::atomic<std::uint32_t> usedLock;          // the update lock may be the command's
  std::atomic<std::uint32_t> updated;           // the module, already
  std::atomic<std::uint32_t> result;            // the exit code and 1; 0: none yet
  // Whole when the child writes no more.
  char module[128];         // whose turn it is; empty when it may be any
  char mounted[16 * 1024];  // directories, a line each
};

std::string moduleOf(const ChildRecord& record);
std::vector<std::string> mountedBy(const ChildRecord& record);
// The exit code, when there is a result.
std::optional<int> resultOf(const ChildRecord& record);

using Seconds = std::chrono::duration<double>;
// How long nothing may be told; empty: for ever. patience: where the library sets no limit of
// its own.
std::optional<Seconds> allowedSilence(const ChildRecord& record, Seconds patience);

// "while it wrote the firmware"
const char* wordsOf(Step step);
// The step's name in JSON.
const char* idOf(Step step);

}  // namespace tool

#endif
