// SPDX-License-Identifier: Apache-2.0
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

// The library names of firmware, as the checks tell them.
class ModuleNames {
 public:
  void take(const Message& message) {
    if (message.format == MESSAGE_CHECK_BEGINS && message.values.size() == 2) {
      modules_[message.values[1].text] = message.values[0].text;
    }
  }
  void name(std::vector<Update>& updates) const {
    for (Update& update : updates) {
      const auto module = modules_.find(update.firmware);
      if (update.module.empty() && module != modules_.end()) {
        update.module = module->second;
      }
    }
  }

 private:
  std::map<std::string, std::string> modules_;
};

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

void addUpdates(std::vector<Update>& updates, const TraceFile& file,
                const fwmessages::UpdateTracker& tracker) {
  for (const fwmessages::Update& update : tracker.updates()) {
    updates.push_back({update, &file});
  }
}

void finish(std::vector<Update>& updates, const ModuleNames& names) {
  names.name(updates);
  std::stable_sort(updates.begin(), updates.end(),
                   [](const Update& a, const Update& b) { return a.span.begin < b.span.begin; });
}

// Whether no message of the place tells anything of an update.
bool isOther(const Location* location) {
  return location == nullptr || fwmessages::eventOf(location->format, location->function,
                                                    location->arguments.size()) == Event::Other;
}

}  // namespace

Timeline timelineOf(std::vector<TraceFile>& files) {
  Timeline timeline;
  MessageRoom room;
  ModuleNames names;
  for (TraceFile& file : files) {
    fwmessages::UpdateTracker tracker;
    std::optional<std::int64_t> last;
    for (Message& message : messagesOf(file.trace, room)) {
      tracker.take(loggedOf(message));
      names.take(message);
      last = message.time;
      timeline.entries.push_back({&file, std::move(message)});
    }
    if (last) {
      tracker.finish(*last, file.alive);
    }
    addUpdates(timeline.updates, file, tracker);
    for (const auto& [id, name] : threadNames(file.trace)) {
      timeline.threadNames[{&file, id}] = name;
    }
  }
  finish(timeline.updates, names);
  nameWorkers(timeline);
  std::stable_sort(timeline.entries.begin(), timeline.entries.end(),
                   [](const Entry& a, const Entry& b) { return a.message.time < b.message.time; });
  return timeline;
}

std::vector<Update> updatesOf(std::list<TraceReading>& readings) {
  std::vector<Update> updates;
  ModuleNames names;
  for (TraceReading& reading : readings) {
    fwmessages::UpdateTracker tracker;
    std::map<const Location*, bool> others;
    RecordStream stream(reading);
    std::int64_t last = 0;
    while (stream.next()) {
      last = stream.record().time;
      const auto [other, isNew] = others.try_emplace(stream.location());
      if (isNew) {
        other->second = isOther(stream.location());
      }
      if (other->second) {
        tracker.take({Event::Other, last, stream.record().threadId, "", {}});
        continue;
      }
      const Message message = stream.message();
      tracker.take(loggedOf(message));
      names.take(message);
    }
    tracker.finish(last, reading.file.alive);
    addUpdates(updates, reading.file, tracker);
  }
  finish(updates, names);
  return updates;
}

}  // namespace tracetool
