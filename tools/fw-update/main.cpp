// SPDX-License-Identifier: Apache-2.0
// fw-update: the firmware update command. Parses, runs one command, puts its
// report out and exits with the report's code.
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <exception>
#include <string>
#include <utility>

#include "clean-output.h"
#include "command-line.h"
#include "isolation/isolation.h"
#include "isolation/service-gate.h"
#include "isolation/supervised.h"
#include "library/library-log.h"
#include "lock/release-program.h"
#include "record/update-record.h"
#include "report.h"
#include "service/service-commands.h"
#include "update-all/run-note.h"

namespace {

using namespace tool;

frame::Form formOf(const Options& options) {
  if (options.ndjson) {
    return frame::Form::Ndjson;
  }
  return options.json ? frame::Form::Json : frame::Form::Text;
}

int put(frame::Report report, const std::string& command, const Options& options, const LogMessages& log) {
  if (options.log) {
    report.details["log"] = toJson(log);
  }
  return frame::put(report, program().info.name, command, formOf(options), Outcome::Unexpected);
}

void addTo(frame::Report& report, const Finding& interrupted) {
  report.details["interruptedRun"]["message"] = interrupted.message;
  report.details["interruptedRun"]["remedy"] = interrupted.remedy;
}

// In this process.
int runHere(const frame::Parsed& parsed, const Options& options) {
  const auto interrupted = takeInterruptedRun();
  if (interrupted && formOf(options) == frame::Form::Text) {
    frame::complain(program().info.name, interrupted->message, interrupted->remedy);
  }
  frame::Report report = frame::run(program().info, *parsed.command);
  UpdateRecord::instance().end(report, LibraryLog::instance().since(0));
  if (interrupted) {
    addTo(report, *interrupted);
  }
  const int code = put(report, parsed.name, options, LibraryLog::instance().since(0));
  supervised::tellResult(code);
  // Nothing is torn down under a module that still runs.
  if (report.endsAtOnce) {
    std::_Exit(code);
  }
  return code;
}

// In a child process.
int runThere(const frame::Parsed& parsed, const Options& options) {
  const IsolatedEnd end = runIsolated(options);
  if (end.isChild) {
    return runHere(parsed, options);
  }
  if (end.signal != 0) {
    if (isCancelledThroughService()) {
      frame::Report cancelled(Outcome::Stopped, "It was cancelled before it reached a module.");
      UpdateRecord::instance().end(cancelled, {});
    }
    std::signal(end.signal, SIG_DFL);
    kill(getpid(), end.signal);
  }
  if (!end.report) {
    return end.exitCode;
  }
  frame::Report report = *end.report;
  UpdateRecord::instance().end(report, end.log);
  return put(std::move(report), parsed.name, options, end.log);
}

// In the update service.
int runElsewhere(const frame::Parsed& parsed, const Options& options) {
  frame::BoundCommand command = *parsed.command;
  command.run = [&] { return runThroughService(options, parsed.name); };
  frame::Report report = frame::run(program().info, command);
  const Json::Value& details = report.details;
  if (details.isMember("interruptedRun") && formOf(options) == frame::Form::Text) {
    frame::complain(program().info.name, textIn(details["interruptedRun"], "message"),
                    textIn(details["interruptedRun"], "remedy"));
  }
  return put(std::move(report), parsed.name, options, {});
}

int perform(int argc, char** argv) {
  runReleaseProgram(argc, argv);
  Options options;
  const frame::BoundProgram bound = frame::bind(program(), options);
  const frame::Parsed parsed = frame::parse(bound, argc, argv);
  if (parsed.problem) {
    Options output;
    output.json = parsed.json;
    return put(*parsed.problem, parsed.name, output, {});
  }
  if (parsed.command == nullptr) {
    return 0;
  }
  if (options.log) {
    setenv("FW_UPDATE_LOG", "stderr", 1);
  }
  if (options.service) {
    return runElsewhere(parsed, options);
  }
  endWithServiceForEntry();
  UpdateRecord::instance().begin(parsed.name, options);
  if (isForEntryAlone()) {
    return put(frame::Report(Outcome::Ok), parsed.name, options, {});
  }
  return options.isolated ? runThere(parsed, options) : runHere(parsed, options);
}

}  // namespace

int main(int argc, char** argv) {
  try {
    base::cleanStandardOutput();
    return perform(argc, argv);
  } catch (const std::exception& error) {  // before or after the command: out of memory, as a rule
    frame::complain(program().info.name, error.what(), "");
    return infoOf(Outcome::Unexpected).exitCode;
  }
}
