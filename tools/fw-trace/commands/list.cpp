// SPDX-License-Identifier: Apache-2.0
// fw-trace list
#include <unistd.h>

#include "../commands.h"
#include "../selection.h"
#include "../time-text.h"
#include "terminal.h"
#include "text-layout.h"

namespace tracetool {
namespace {

const char* stateOf(const TraceFile& file) {
  if (!file.problem.empty()) {
    return "unreadable";
  }
  return file.alive ? "alive" : "dead";
}

std::uint64_t recordsIn(TraceFile& file) {
  std::uint64_t count = 0;
  const BytesOfFile bytes(file.path);
  for (const Ring& ring : file.trace.rings) {
    RingReader reader(ring, file.trace.timeOffset);
    for (auto records = reader.next(bytes, file.trace.skipped); !records.empty();
         records = reader.next(bytes, file.trace.skipped)) {
      count += records.size();
    }
  }
  return count;
}

Json::Value json(const TraceFile& file, std::uint64_t records) {
  Json::Value value;
  value["path"] = file.path;
  value["state"] = stateOf(file);
  value["bytes"] = Json::UInt64{file.bytes};
  if (!file.problem.empty()) {
    value["problem"] = file.problem;
    return value;
  }
  value["processId"] = file.trace.processId;
  value["parentId"] = file.trace.parentId;
  value["process"] = file.trace.processName;
  value["commandLine"] = file.trace.commandLine;
  value["start"] = dayAndTime(file.trace.start);
  value["records"] = Json::UInt64{records};
  value["overwritten"] = file.trace.overwritten;
  value["dropped"] = file.trace.dropped;
  return value;
}

std::vector<std::string> row(const TraceFile& file, std::uint64_t records) {
  if (!file.problem.empty()) {
    return {"-", stateOf(file), "-", "-", file.path + ": " + file.problem};
  }
  return {std::to_string(file.trace.processId), stateOf(file), dayAndTime(file.trace.start),
          std::to_string(records), file.trace.commandLine};
}

}  // namespace

frame::Report runList(const Options& options) {
  Selection selection = selectTraces(options);
  frame::Report report = selection.problem;
  report.details["directory"] = options.directory;
  report.details["traces"] = Json::arrayValue;
  std::vector<std::vector<std::string>> rows{{"PROCESS", "STATE", "STARTED", "RECORDS", "COMMAND"}};
  for (TraceFile& file : selection.files) {
    const std::uint64_t records = recordsIn(file);
    rows.push_back(row(file, records));
    report.details["traces"].append(json(file, records));
  }
  if (!selection.files.empty()) {
    report.body = tool::table(rows, tool::terminalWidth(STDOUT_FILENO));
  }
  return report;
}

}  // namespace tracetool
