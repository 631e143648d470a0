// fw-module: writes the projects of update modules, and checks modules against their
// contract. Parses, runs one command and exits with its outcome's code.
#include <json/value.h>
#include <unistd.h>

#include <csignal>
#include <exception>
#include <iostream>
#include <string>
#include <system_error>
#include <variant>

#include "clean-output.h"
#include "command-line.h"
#include "ending-signals.h"
#include "printable-text.h"
#include "terminal.h"
#include "text-layout.h"

namespace {

using namespace fwmodule;

int putFailure(Outcome outcome, const std::string& sentence, const std::string& command, bool json) {
  const OutcomeInfo& info = infoOf(outcome);
  if (json) {
    Json::Value document;
    document["command"] = command;
    document["ok"] = false;
    document["outcome"] = info.id;
    document["exitCode"] = info.exitCode;
    document["message"] = sentence;
    std::cout << tool::indented(document) << std::flush;
  } else {
    std::cerr << tool::coloured("fw-module: ", tool::Colour::Red, STDERR_FILENO) << sentence << std::endl;
  }
  return info.exitCode;
}

// On one line, whatever names are in it; a document escapes it itself.
std::string shown(const std::exception& error, const Options& options) {
  return options.json ? error.what() : base::printableText(error.what());
}

int run(const Options& options) {
  const std::string command = options.command->name;
  try {
    const Outcome outcome = options.command->run(options);
    return infoOf(std::cout.good() ? outcome : Outcome::Unexpected).exitCode;
  } catch (const tool::Interrupted& interrupted) {
    std::signal(interrupted.signal(), SIG_DFL);
    return raise(interrupted.signal());
  } catch (const Failure& failure) {
    return putFailure(failure.outcome(), shown(failure, options), command, options.json);
  } catch (const std::system_error& error) {
    return putFailure(Outcome::NotPossible, shown(error, options), command, options.json);
  } catch (const std::exception& error) {
    return putFailure(Outcome::Unexpected, shown(error, options), command, options.json);
  }
}

}  // namespace

int main(int argc, char** argv) {
  base::cleanStandardOutput();
  const auto parsed = parseCommandLine(argc, argv);
  if (const auto* ended = std::get_if<Ended>(&parsed)) {
    return ended->usageError.empty() ? 0 : putFailure(Outcome::Usage, ended->usageError, "", ended->json);
  }
  return run(std::get<Options>(parsed));
}
