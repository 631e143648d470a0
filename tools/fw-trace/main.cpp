// fw-trace: the traces of firmware updates. Parses, runs one command, puts its
// report out and exits with the report's code.
#include <unistd.h>

#include <exception>
#include <iostream>
#include <new>
#include <string>
#include <variant>

#include "clean-output.h"
#include "command-line.h"
#include "outcome.h"
#include "terminal.h"
#include "text-layout.h"

namespace {

using namespace tracetool;

Report unexpected(const std::string& message) {
  Report report;
  report.outcome = Outcome::Unexpected;
  report.message = message;
  return report;
}

Report run(const Options& options) {
  try {
    return options.command->run(options);
  } catch (const std::bad_alloc&) {
    return unexpected("There is not enough memory for these traces; name fewer of them.");
  } catch (const std::exception& error) {
    return unexpected(std::string("Unexpected error: ") + error.what());
  }
}

void putJson(const Report& report, const std::string& command) {
  const OutcomeInfo& info = infoOf(report.outcome);
  Json::Value document = report.details;
  document["command"] = command;
  document["ok"] = info.exitCode == 0;
  document["outcome"] = info.id;
  document["exitCode"] = info.exitCode;
  if (!report.message.empty()) {
    document["message"] = report.message;
  }
  std::cout << tool::indented(document) << std::flush;
}

void putText(const Report& report) {
  std::cout << report.body << std::flush;
  for (const Json::Value& line : report.details["skipped"]) {
    std::cerr << tool::coloured("fw-trace: ", tool::Colour::Yellow, STDERR_FILENO) << line.asString() << '\n';
  }
  if (report.message.empty()) {
    return;
  }
  const bool failed = report.outcome != Outcome::Ok;
  std::ostream& stream = failed ? std::cerr : std::cout;
  if (failed) {
    stream << tool::coloured("fw-trace: ", tool::Colour::Red, STDERR_FILENO);
  }
  stream << report.message << '\n';
}

int put(const Report& report, const std::string& command, bool json) {
  if (json && !report.raw) {
    putJson(report, command);
  } else {
    putText(report);
  }
  return std::cout.good() ? infoOf(report.outcome).exitCode : infoOf(Outcome::Unexpected).exitCode;
}

int perform(int argc, char** argv) {
  const auto parsed = parseCommandLine(argc, argv);
  if (const auto* ended = std::get_if<Ended>(&parsed)) {
    return ended->usageError ? put(*ended->usageError, "", ended->json) : 0;
  }
  const auto& options = std::get<Options>(parsed);
  return put(run(options), options.command->name, options.json);
}

}  // namespace

int main(int argc, char** argv) {
  try {
    base::cleanStandardOutput();
    return perform(argc, argv);
  } catch (const std::exception& error) {  // out of memory, as a rule
    std::cerr << "fw-trace: " << error.what() << std::endl;
    return infoOf(Outcome::Unexpected).exitCode;
  }
}
