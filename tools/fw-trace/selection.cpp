#include "selection.h"

#include <algorithm>

namespace tracetool {
namespace {

bool isProcessId(const std::string& text) {
  return !text.empty() && text.find_first_not_of("0123456789") == std::string::npos;
}

// A named trace: every file of the process, or the one file.
std::vector<TraceFile> named(const std::string& name, const std::vector<TraceFile>& all) {
  if (!isProcessId(name)) {
    return {loadTrace(name)};
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
  const std::vector<TraceFile> all = loadTraces(options.directory, ignored);
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

std::vector<std::string> skippedOf(const std::vector<TraceFile>& files) {
  std::vector<std::string> lines;
  for (const TraceFile& file : files) {
    if (!file.problem.empty()) {
      lines.push_back(file.path + ": " + file.problem);
    }
    for (const std::string& note : file.trace.skipped) {
      lines.push_back(file.path + ": " + note);
    }
    if (file.trace.dropped != 0) {
      lines.push_back(file.path + ": " + std::to_string(file.trace.dropped) +
                      " messages found no room and were not recorded.");
    }
  }
  return lines;
}

}  // namespace

Selection selectTraces(const Options& options) {
  if (!options.traces.empty()) {
    return selectNamed(options);
  }
  Selection selection;
  std::string problem;
  selection.files = loadTraces(options.directory, problem);
  if (!problem.empty()) {
    selection.problem =
        frame::Report(Outcome::Unreadable, options.directory + " cannot be read: " + problem + ".");
  } else if (selection.files.empty()) {
    selection.problem =
        frame::Report(Outcome::NothingFound, "There are no traces in " + options.directory + ".");
  }
  return selection;
}

void addSkipped(frame::Report& report, const std::vector<TraceFile>& files) {
  report.remarks = skippedOf(files);
  for (const std::string& line : report.remarks) {
    report.details["skipped"].append(line);
  }
}

}  // namespace tracetool
