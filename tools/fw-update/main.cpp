// fw-update: the firmware update command. Parses, runs one command, puts its
// report out and exits with the report's code.
#include <unistd.h>

#include <cstdlib>
#include <exception>
#include <iostream>
#include <variant>

#include "command-line.h"
#include "library-log.h"
#include "report.h"
#include "run-note.h"
#include "terminal.h"

namespace {

using namespace tool;

Report run(const Options& options) {
  try {
    return options.command->run(options);
  } catch (const std::exception& error) {
    Report report;
    report.command = options.command->name;
    report.finding = {Outcome::Unexpected, std::string("Unexpected error: ") + error.what(),
                      "See the log (--log)."};
    return report;
  }
}

Json::Value document(const Report& report, const Options& options) {
  return options.log ? toJson(report, LibraryLog::instance().since(0)) : toJson(report);
}

void put(const Report& report, const Options& options) {
  if (options.ndjson) {
    Json::Value line = document(report, options);
    line["event"] = "result";
    std::cout << onOneLine(line) << std::flush;
  } else if (options.json) {
    std::cout << indented(document(report, options)) << std::flush;
  } else {
    printText(report);
  }
}

// An earlier run that was cut off is told before the command's own answer.
void tell(const Finding& interrupted) {
  const std::size_t width = terminalWidth(STDERR_FILENO);
  std::cerr << wrapped("fw-update: " + printable(interrupted.message), width) << '\n'
            << wrapped(printable(interrupted.remedy), width) << std::endl;
}

void addTo(Report& report, const Finding& interrupted) {
  report.details["interruptedRun"]["message"] = interrupted.message;
  report.details["interruptedRun"]["remedy"] = interrupted.remedy;
}

int usage(const Ended& ended) {
  if (!ended.usageError)
    return 0;
  Options output;
  output.json = ended.json;
  put(*ended.usageError, output);
  return infoOf(Outcome::Usage).exitCode;
}

}  // namespace

int main(int argc, char** argv) {
  const auto parsed = parseCommandLine(argc, argv);
  if (const auto* ended = std::get_if<Ended>(&parsed))
    return usage(*ended);
  const auto& options = std::get<Options>(parsed);
  if (options.log)
    setenv("FW_UPDATE_LOG", "stderr", 1);
  const auto interrupted = takeInterruptedRun();
  if (interrupted && !options.json && !options.ndjson)
    tell(*interrupted);
  Report report = run(options);
  if (interrupted)
    addTo(report, *interrupted);
  put(report, options);
  const int code = std::cout.good() ? infoOf(report.finding.outcome).exitCode : 1;
  // Nothing is torn down under a module that still runs.
  if (report.moduleRuns)
    std::_Exit(code);
  return code;
}
