// fw-update: the firmware update command. Parses, runs one command, puts its
// report out and exits with the report's code.
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <exception>
#include <iostream>
#include <new>
#include <string>
#include <system_error>
#include <variant>

#include "clean-output.h"
#include "command-line.h"
#include "isolation/isolation.h"
#include "isolation/supervised.h"
#include "library/library-log.h"
#include "lock/release-program.h"
#include "report.h"
#include "terminal.h"
#include "update-all/run-note.h"

namespace {

using namespace tool;

Report unexpected(const Options& options, const std::string& message, const char* remedy) {
  Report report;
  report.command = options.command->name;
  report.finding = {Outcome::Unexpected, message, remedy};
  return report;
}

Report run(const Options& options) {
  constexpr const char* kNoRoom = "Try again when the device has more memory free.";
  try {
    return options.command->run(options);
  } catch (const std::bad_alloc&) {
    return unexpected(options, "The device has no memory left for this command.", kNoRoom);
  } catch (const std::system_error& error) {
    return unexpected(options, std::string("The command could not be carried out: ") + error.what() + ".",
                      kNoRoom);
  } catch (const std::exception& error) {
    return unexpected(options, std::string("Unexpected error: ") + error.what(), "See the log (--log).");
  }
}

Json::Value document(const Report& report, const Options& options, const LogMessages& log) {
  return options.log ? toJson(report, log) : toJson(report);
}

void put(const Report& report, const Options& options, const LogMessages& log) {
  if (options.ndjson) {
    Json::Value line = document(report, options, log);
    line["event"] = "result";
    std::cout << onOneLine(line) << std::flush;
  } else if (options.json) {
    std::cout << indented(document(report, options, log)) << std::flush;
  } else {
    printText(report);
  }
}

// An earlier run that was cut off is told before the command's own answer.
void tell(const Finding& interrupted) {
  const std::size_t width = terminalWidth(STDERR_FILENO);
  std::cerr << wrapped("fw-update: " + interrupted.message, width) << '\n'
            << wrapped(interrupted.remedy, width) << std::endl;
}

void addTo(Report& report, const Finding& interrupted) {
  report.details["interruptedRun"]["message"] = interrupted.message;
  report.details["interruptedRun"]["remedy"] = interrupted.remedy;
}

int usage(const Ended& ended) {
  if (!ended.usageError) {
    return 0;
  }
  Options output;
  output.json = ended.json;
  put(*ended.usageError, output, {});
  return infoOf(Outcome::Usage).exitCode;
}

// In this process.
int runHere(const Options& options) {
  const auto interrupted = takeInterruptedRun();
  if (interrupted && !options.json && !options.ndjson) {
    tell(*interrupted);
  }
  Report report = run(options);
  if (interrupted) {
    addTo(report, *interrupted);
  }
  put(report, options, LibraryLog::instance().since(0));
  const int code = std::cout.good() ? infoOf(report.finding.outcome).exitCode : 1;
  supervised::tellResult(code);
  // Nothing is torn down under a module that still runs.
  if (report.moduleRuns) {
    std::_Exit(code);
  }
  return code;
}

// In a child process.
int runThere(const Options& options) {
  const IsolatedEnd end = runIsolated(options);
  if (end.isChild) {
    return runHere(options);
  }
  if (end.signal != 0) {
    std::signal(end.signal, SIG_DFL);
    kill(getpid(), end.signal);
  }
  if (!end.report) {
    return end.exitCode;
  }
  put(*end.report, options, end.log);
  return std::cout.good() ? infoOf(end.report->finding.outcome).exitCode : 1;
}

int perform(int argc, char** argv) {
  runReleaseProgram(argc, argv);
  const auto parsed = parseCommandLine(argc, argv);
  if (const auto* ended = std::get_if<Ended>(&parsed)) {
    return usage(*ended);
  }
  const auto& options = std::get<Options>(parsed);
  if (options.log) {
    setenv("FW_UPDATE_LOG", "stderr", 1);
  }
  return options.isolated ? runThere(options) : runHere(options);
}

}  // namespace

int main(int argc, char** argv) {
  try {
    base::cleanStandardOutput();
    return perform(argc, argv);
  } catch (const std::exception& error) {  // before or after the command: out of memory, as a rule
    std::cerr << "fw-update: " << error.what() << std::endl;
    return infoOf(Outcome::Unexpected).exitCode;
  }
}
