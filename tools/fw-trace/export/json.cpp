// SPDX-License-Identifier: Apache-2.0
#include <set>

#include "entry-line.h"
#include "export/format.h"
#include "text-layout.h"

namespace tracetool {
namespace {

void putSpan(Json::Value& value, const Span& span) {
  value["begin"] = Json::Int64{span.begin};
  value["end"] = Json::Int64{span.end};
}

Json::Value jsonOf(const Update& update) {
  Json::Value value;
  value["module"] = update.module;
  value["firmware"] = update.firmware;
  if (update.caller) {
    value["caller"] = *update.caller;
  }
  value["processId"] = update.file->trace.processId;
  value["threadId"] = update.threadId;
  value["result"] = nameOf(update.result);
  value["reason"] = update.reason;
  putSpan(value, update.span);
  value["stages"] = Json::arrayValue;
  for (const StageSpan& stage : update.stages) {
    Json::Value part;
    part["stage"] = nameOf(stage.stage);
    part["threadId"] = stage.threadId;
    putSpan(part, stage.span);
    value["stages"].append(part);
  }
  return value;
}

Json::Value jsonOf(const TraceFile& file) {
  Json::Value value;
  value["processId"] = file.trace.processId;
  value["process"] = file.trace.processName;
  value["commandLine"] = file.trace.commandLine;
  value["start"] = Json::Int64{file.trace.start};
  value["alive"] = file.alive;
  return value;
}

}  // namespace

Json::Value jsonOf(const Timeline& timeline) {
  Json::Value document;
  for (const char* list : {"processes", "threads", "updates", "messages"}) {
    document[list] = Json::arrayValue;
  }
  std::set<const TraceFile*> files;
  for (const Entry& entry : timeline.entries) {
    if (files.insert(entry.file).second) {
      document["processes"].append(jsonOf(*entry.file));
    }
    document["messages"].append(jsonOf(entry));
  }
  for (const auto& [thread, name] : timeline.threadNames) {
    Json::Value value;
    value["processId"] = thread.first->trace.processId;
    value["threadId"] = thread.second;
    value["name"] = name;
    document["threads"].append(value);
  }
  for (const Update& update : timeline.updates) {
    document["updates"].append(jsonOf(update));
  }
  return document;
}

std::string exportJson(const Timeline& timeline) {
  return tool::indented(jsonOf(timeline));
}

}  // namespace tracetool
