// What happened, derived from the messages: the update requests of each process
// with their stages. The messages' texts are all that it builds on. Pure; any
// thread.
#ifndef FW_TRACE_TIMELINE_H
#define FW_TRACE_TIMELINE_H

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "entry.h"

namespace tracetool {

struct Span {
  std::int64_t begin = 0;  // nanoseconds since 1970
  std::int64_t end = 0;
  std::int64_t length() const { return end - begin; }
};

enum class Result { Updated, NotNeeded, Refused, ModuleFailed, TimedOut, Running, Interrupted };

const char* nameOf(Result result);

enum class Stage { Check, WaitForLock, Prepare, InModule };

const char* nameOf(Stage stage);

// A stage ran on this thread.
struct StageSpan {
  Stage stage = Stage::Check;
  std::uint32_t threadId = 0;
  Span span;
};

// One request for one module, or one module's turn in an update of all.
struct Update {
  const TraceFile* file = nullptr;
  std::string module;  // library name; "" when only the firmware name is known
  std::string firmware;
  std::optional<int> caller;
  std::uint32_t threadId = 0;  // who asked
  Span span;
  Result result = Result::Running;
  std::string reason;  // the message that tells the reason, when it did not succeed
  std::vector<StageSpan> stages;

  std::string name() const { return module.empty() ? firmware : module; }
  // All spans of a stage together; nothing when the update never came to it.
  std::optional<std::int64_t> timeIn(Stage stage) const;
};

struct Timeline {
  std::vector<Entry> entries;
  std::vector<Update> updates;  // by the time they began
  std::map<std::pair<const TraceFile*, std::uint32_t>, std::string> threadNames;
};

Timeline timelineOf(std::vector<TraceFile>& files);

}  // namespace tracetool

#endif
