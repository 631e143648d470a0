// SPDX-License-Identifier: Apache-2.0
// Follows the updates of one process by what the library logs: what each is doing, how it
// ended, and why. The one place that knows in which order the messages come; give it all
// messages of a process, oldest first. Pure; for one thread.
#ifndef UPDATE_TRACKER_H
#define UPDATE_TRACKER_H

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "update-events.h"

namespace fwmessages {

struct Span {
  std::int64_t begin = 0;  // nanoseconds
  std::int64_t end = 0;
  std::int64_t length() const { return end - begin; }
};

// Interrupted: nothing ended it, and its process is gone.
enum class Result { Updated, NotNeeded, Refused, ModuleFailed, TimedOut, Running, Interrupted };

enum class Stage { Check, WaitForLock, Prepare, InModule };

// A stage ran on this thread.
struct StageSpan {
  Stage stage = Stage::Check;
  std::uint32_t threadId = 0;
  Span span;
  bool isOpen = false;  // it goes on, and has no end yet
};

// The time that a module is given, in seconds.
struct TimeLimit {
  unsigned int expected = 0;
  unsigned int givesUp = 0;  // when the library does; 0: never. Wraps as the library's does.
};

// One request for one module, or one module's turn in a run over all.
struct Update {
  std::string module;  // library name; empty when only the firmware's is known
  std::string firmware;
  std::optional<int> caller;
  std::uint32_t threadId = 0;  // who asked
  Span span;
  Result result = Result::Running;
  std::string reason;  // the message that tells the reason, when it did not succeed
  std::vector<StageSpan> stages;
  std::optional<TimeLimit> limit;  // none without the update lock
  bool waitsForLock = false;
  bool holdsLock = false;
  bool timedOut = false;
  bool ofRun = false;                 // in a run over all modules
  bool ofUsbPackage = false;          // nobody requested it
  std::optional<std::int64_t> ended;  // its request, or its turn; the module may work on
  std::vector<std::size_t> messages;  // by number: its own and its worker's, late ones as well

  std::string name() const { return module.empty() ? firmware : module; }
  // All spans of a stage together, as far as the update's own reaches; nothing when the update never
  // came to it.
  std::optional<std::int64_t> timeIn(Stage stage) const;
  // The first of these stages, or null.
  const StageSpan* find(Stage stage) const;
};

// What a process is at.
enum class Activity { Check, Wait, Write, Procedure, Package, Finish };

// What an event begins; nothing for one that changes nothing about that.
std::optional<Activity> activityAfter(Event event);

class UpdateTracker {
 public:
  // The messages are numbered in the order in which they come, from 0.
  void take(const Logged& message);
  // There are no more: what is under way ended at that time, or runs on.
  void finish(std::int64_t time, bool runsOn);

  const std::vector<Update>& updates() const& { return updates_; }
  const std::vector<Update>& updates() const&& = delete;  // they go with the tracker
  // The module whose turn it is; empty when no message has named one.
  const std::string& module() const { return module_; }

  // What no message tells, or tells only later.
  void learnModule(const std::string& firmware, const std::string& module) { modules_[firmware] = module; }
  void turnTo(const std::string& module) { module_ = module; }

 private:
  struct Check {
    std::string module;
    std::string firmware;
    std::int64_t begin = 0;
    std::string reason;
    bool notNeeded = false;
  };

  void onCheckBegins(const Logged& message);
  void onLockWanted(const Logged& message);
  void onLockTaken(const Logged& message);
  void onWriteBegins(const Logged& message);
  void onPackageWriteBegins(const Logged& message);
  void onNotNeeded(const Logged& message);
  void onNotNeededAnyMore(const Logged& message);
  void onTimedOut(const Logged& message);
  void onError(const Logged& message);
  void onRequestEnds(const Logged& message);
  void onRunBegins(const Logged& message);
  void onRunEnds(const Logged& message);
  void dispatch(const Logged& message);
  void noteModule(const Logged& message);
  std::string moduleOf(const Logged& message) const;

  Update& begin(const Logged& message, const std::string& firmware);
  Update* ofThread(std::uint32_t threadId);
  Update* waitingFor(const std::string& firmware);
  void end(Update& update, std::int64_t time, Result result, const std::string& reason);
  static void open(Update& update, Stage stage, const Logged& message);
  static void close(Update& update, std::uint32_t threadId, std::int64_t time);
  void leaveModule(const Logged& message, Result result, const std::string& reason);

  std::vector<Update> updates_;
  std::map<std::uint32_t, Check> checks_;         // by thread
  std::map<std::uint32_t, std::size_t> current_;  // by thread: asking or working
  std::set<std::size_t> open_;
  std::map<std::string, std::string> modules_;  // by firmware name
  std::optional<std::uint32_t> runThread_;      // of a run over all modules that goes on
  std::size_t taken_ = 0;
  std::string module_;
};

}  // namespace fwmessages

#endif
