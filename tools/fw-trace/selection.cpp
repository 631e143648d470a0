// SPDX-License-Identifier: Apache-2.0
#include "selection.h"

#include <algorithm>

#include "library-messages.h"

namespace tracetool {
namespace {

// A named trace: every file of the process, or the one file.
std::vector<TraceFile> named(const std::string& name, const std::vector<TraceFile>& all) {
  if (!isProcessId(name)) {
    return {openTrace(name)};
  }
  std::vector<TraceFile> files;
  std::copy_if(all.begin(), all.end(), std::back_inserter(files), [&name](const TraceFile& file) {
    return file.problem.empty() && std::to_string(file.trace.processId) == name;
  });
  return files;
}

Selection selectNamed(const Options& options) {
  Selection selection;
  std::string ignored;
  const std::vector<TraceFile> all = openTraces(options.directory, ignored);
  for (const std::string& name : options.traces) {
    auto files = named(name, all);
    if (files.empty()) {
      selection.problem = frame::Report(Outcome::NothingFound, "There is no trace of process " + name + ".");
    } else if (files.size() == 1 && !files.front().problem.empty()) {
      selection.problem = frame::Report(Outcome::Unreadable, name + ": " + files.front().problem);
    }
    std::move(files.begin(), files.end(), std::back_inserter(selection.files));
  }
  return selection;
}

void addSkipped(frame::Report& report, const TraceFile& file) {
  std::vector<std::string> lines = file.trace.skipped;
  if (!file.problem.empty()) {
    lines.insert(lines.begin(), file.problem);
  }
  if (file.trace.dropped != 0) {
    lines.push_back(std::to_string(file.trace.dropped) + " messages found no room and were not recorded.");
  }
  for (const std::string& line : lines) {
    const std::string sentence = file.path + ": " + line;
    report.details["skipped"].append(sentence);
    if (sentence != report.message) {  // people are told once
      report.remarks.push_back(sentence);
    }
  }
}

}  // namespace

bool isProcessId(const std::string& text) {
  return !text.empty() && text.find_first_not_of("0123456789") == std::string::npos;
}

Selection selectTraces(const Options& options) {
  if (!options.traces.empty()) {
    return selectNamed(options);
  }
  Selection selection;
  std::string problem;
  selection.files = openTraces(options.directory, problem);
  if (!problem.empty()) {
    selection.problem =
        frame::Report(Outcome::Unreadable, options.directory + " cannot be read: " + problem + ".");
  } else if (selection.files.empty()) {
    selection.problem =
        frame::Report(Outcome::NothingFound, "There are no traces in " + options.directory + ".");
  }
  return selection;
}

std::list<TraceReading> readingsOf(const std::vector<TraceFile>& files) {
  std::list<TraceReading> readings;
  for (const TraceFile& file : files) {
    readings.emplace_back(file);
  }
  return readings;
}

void learn(Filter& filter, std::list<TraceReading>& readings) {
  std::int64_t last = 0;
  for (RecordStream stream(readings); stream.next();) {
    const Location* location = stream.location();
    if (location != nullptr && location->format == MESSAGE_CHECK_BEGINS) {
      filter.learn(stream.message());
    }
    last = stream.record().time;
  }
  filter.takeDay(last);
}

void addSkipped(frame::Report& report, const std::vector<TraceFile>& files) {
  for (const TraceFile& file : files) {
    addSkipped(report, file);
  }
}

void addSkipped(frame::Report& report, std::list<TraceReading>& readings) {
  for (TraceReading& reading : readings) {
    if (reading.damaged != 0) {
      reading.file.trace.skipped.push_back(damagedMessages(reading.damaged));
    }
    addSkipped(report, reading.file);
  }
}

}  // namespace tracetool
