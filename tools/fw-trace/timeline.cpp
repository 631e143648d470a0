#include "timeline.h"

#include <algorithm>

#include "library-messages.h"

namespace tracetool {
namespace {

using fwmessages::Event;

std::vector<std::string> textsOf(const std::vector<Value>& values) {
  std::vector<std::string> texts;
  for (const Value& value : values) {
    const bool isNumber = value.kind == Value::Kind::Number;
    texts.push_back(isNumber ? std::to_string(static_cast<std::int32_t>(value.number)) : value.text);
  }
  return texts;
}

fwmessages::Logged loggedOf(const Message& message) {
  fwmessages::Logged logged;
  logged.event = fwmessages::eventOf(message.format, message.function, message.values.size());
  logged.time = message.time;
  logged.threadId = message.threadId;
  // Of the others nothing more counts, and there may be very many.
  if (logged.event != Event::Other) {
    logged.text = message.text;
    logged.arguments = textsOf(message.values);
  }
  return logged;
}

// The library names of firmware, from the checks of the whole timeline.
void nameModules(Timeline& timeline) {
  std::map<std::string, std::string> modules;
  for (const Entry& entry : timeline.entries) {
    if (entry.message.format == MESSAGE_CHECK_BEGINS && entry.message.values.size() == 2) {
      modules[entry.message.values[1].text] = entry.message.values[0].text;
    }
  }
  for (Update& update : timeline.updates) {
    if (update.module.empty() && modules.count(update.firmware) > 0) {
      update.module = modules[update.firmware];
    }
  }
}

// A worker takes the firmware's name, which no record tells while it lives.
void nameWorkers(Timeline& timeline) {
  for (const Update& update : timeline.updates) {
    for (const StageSpan& stage : update.stages) {
      if (stage.threadId != update.threadId && !update.firmware.empty()) {
        timeline.threadNames[{update.file, stage.threadId}] = update.firmware;
      }
    }
  }
}

}  // namespace

const char* nameOf(Result result) {
  constexpr const char* kNames[] = {"updated",   "not needed", "refused",    "module failed",
                                    "timed out", "running",    "interrupted"};
  return kNames[static_cast<std::size_t>(result)];
}

const char* nameOf(Stage stage) {
  constexpr const char* kNames[] = {"check", "wait for the lock", "prepare, CRC", "in the module"};
  return kNames[static_cast<std::size_t>(stage)];
}

namespace {

void addUpdates(Timeline& timeline, const TraceFile& file, const fwmessages::UpdateTracker& tracker) {
  for (const fwmessages::Update& update : tracker.updates()) {
    timeline.updates.push_back({update, &file});
  }
}

}  // namespace

Timeline timelineOf(std::vector<TraceFile>& files) {
  Timeline timeline;
  MessageRoom room;
  for (TraceFile& file : files) {
    fwmessages::UpdateTracker tracker;
    std::optional<std::int64_t> last;
    for (Message& message : messagesOf(file.trace, room)) {
      tracker.take(loggedOf(message));
      last = message.time;
      timeline.entries.push_back({&file, std::move(message)});
    }
    if (last) {
      tracker.finish(*last, file.alive);
    }
    addUpdates(timeline, file, tracker);
    for (const auto& [id, name] : threadNames(file.trace)) {
      timeline.threadNames[{&file, id}] = name;
    }
  }
  nameModules(timeline);
  nameWorkers(timeline);
  std::stable_sort(timeline.updates.begin(), timeline.updates.end(),
                   [](const Update& a, const Update& b) { return a.span.begin < b.span.begin; });
  std::stable_sort(timeline.entries.begin(), timeline.entries.end(),
                   [](const Entry& a, const Entry& b) { return a.message.time < b.message.time; });
  return timeline;
}

}  // namespace tracetool
