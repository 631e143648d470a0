// SPDX-License-Identifier: Apache-2.0
#include <json/value.h>

#include <algorithm>
#include <set>

#include "export/format.h"
#include "text-layout.h"

namespace tracetool {
namespace {

// The format counts in microseconds.
double microseconds(std::int64_t nanoseconds) {
  return static_cast<double>(nanoseconds) / 1000;
}

class EventWriter {
 public:
  explicit EventWriter(const Timeline& timeline) {
    for (const Entry& entry : timeline.entries) {
      origin_ = std::min(origin_, entry.message.time);
    }
    document_["displayTimeUnit"] = "ms";
    document_["traceEvents"] = Json::arrayValue;
  }

  void nameProcess(const TraceFile& file) {
    name("process_name", file, file.trace.processId, file.trace.commandLine);
  }
  void nameThread(const TraceFile& file, std::uint32_t thread, const std::string& text) {
    name("thread_name", file, thread, text);
  }
  void slice(const Update& update, const std::string& title, const char* category, std::uint32_t thread,
             const Span& span) {
    Json::Value event = place("X", *update.file, thread, span.begin);
    event["name"] = title;
    event["cat"] = category;
    event["dur"] = microseconds(span.length());
    event["args"]["module"] = update.module;
    event["args"]["firmware"] = update.firmware;
    event["args"]["result"] = nameOf(update.result);
    if (!update.reason.empty()) {
      event["args"]["reason"] = update.reason;
    }
    document_["traceEvents"].append(event);
  }
  void instant(const Entry& entry) {
    Json::Value event = place("i", *entry.file, entry.message.threadId, entry.message.time);
    event["name"] = entry.message.text;
    event["cat"] = "message";
    event["s"] = "t";
    event["args"]["function"] = entry.message.function;
    event["args"]["file"] = entry.message.file;
    event["args"]["line"] = entry.message.line;
    document_["traceEvents"].append(event);
  }
  std::string finish() const { return tool::indented(document_); }

 private:
  Json::Value place(const char* phase, const TraceFile& file, std::uint32_t thread, std::int64_t time) const {
    Json::Value event;
    event["ph"] = phase;
    event["pid"] = file.trace.processId;
    event["tid"] = thread;
    // From the first message on: a double would lose the microseconds of a date.
    event["ts"] = microseconds(time - origin_);
    return event;
  }
  void name(const char* what, const TraceFile& file, std::uint32_t thread, const std::string& text) {
    Json::Value event;
    event["ph"] = "M";
    event["pid"] = file.trace.processId;
    event["tid"] = thread;
    event["name"] = what;
    event["args"]["name"] = text;
    document_["traceEvents"].append(event);
  }

  Json::Value document_;
  std::int64_t origin_ = INT64_MAX;
};

}  // namespace

std::string exportPerfetto(const Timeline& timeline) {
  EventWriter writer(timeline);
  std::set<const TraceFile*> files;
  for (const Entry& entry : timeline.entries) {
    if (files.insert(entry.file).second) {
      writer.nameProcess(*entry.file);
    }
  }
  for (const auto& [thread, name] : timeline.threadNames) {
    writer.nameThread(*thread.first, thread.second, name);
  }
  for (const Update& update : timeline.updates) {
    writer.slice(update, "update " + update.name(), "update", update.threadId, update.span);
    for (const StageSpan& stage : update.stages) {
      writer.slice(update, std::string(nameOf(stage.stage)) + " (" + update.name() + ")", "stage",
                   stage.threadId, stage.span);
    }
  }
  for (const Entry& entry : timeline.entries) {
    writer.instant(entry);
  }
  return writer.finish();
}

}  // namespace tracetool
