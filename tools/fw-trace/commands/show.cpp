// SPDX-License-Identifier: Apache-2.0
// fw-trace show
#include <iostream>
#include <list>

#include "../commands.h"
#include "../entry-line.h"
#include "../selection.h"

namespace tracetool {
namespace {

// Puts the messages out as they come: there may be more than fit into memory.
std::size_t putLines(RecordStream& stream, const Filter& filter) {
  std::size_t count = 0;
  while (std::cout.good() && stream.next()) {
    const Entry entry{&stream.reading().file, stream.message()};
    if (filter.accepts(entry.message)) {
      std::cout << lineOf(entry);
      ++count;
    }
  }
  return count;
}

std::size_t putInto(frame::Report& report, RecordStream& stream, const Filter& filter) {
  MessageRoom room;
  std::size_t leftOut = 0;
  while (stream.next()) {
    const Entry entry{&stream.reading().file, stream.message()};
    if (!filter.accepts(entry.message)) {
      continue;
    }
    if (makeRoom(room, entry.message)) {
      report.details["messages"].append(jsonOf(entry));
    } else {
      ++leftOut;
    }
  }
  if (leftOut != 0) {
    report.remarks.push_back(leftOutMessages(leftOut));
    report.details["skipped"].append(report.remarks.back());
  }
  return report.details["messages"].size();
}

}  // namespace

frame::Report runShow(const Options& options) {
  Selection selection = selectTraces(options);
  frame::Report report = selection.problem;
  report.details["messages"] = Json::arrayValue;
  Filter filter(options);
  if (filter.hasToLearn()) {
    std::list<TraceReading> readings = readingsOf(selection.files);
    learn(filter, readings);
  }
  std::list<TraceReading> readings = readingsOf(selection.files);
  RecordStream stream(readings);
  const std::size_t count = options.json ? putInto(report, stream, filter) : putLines(stream, filter);
  if (report.ending == Outcome::Ok && count == 0) {
    report.ending = Outcome::NothingFound;
    report.message = "No message fits.";
  }
  addSkipped(report, readings);
  return report;
}

}  // namespace tracetool
