// fw-device: makes devices in directories, and runs programs as if on them.
#include <exception>
#include <iostream>
#include <variant>

#include "clean-output.h"
#include "command-line.h"
#include "exit-code.h"
#include "initialise.h"
#include "printable-text.h"
#include "run.h"

namespace {

using fwdevice::CommandLine;
using fwdevice::ExitCode;

ExitCode carryOut(const CommandLine& line) {
  switch (line.command) {
    case CommandLine::Command::Run:
      fwdevice::run(line);
    case CommandLine::Command::Shell:
      fwdevice::shell(line);
    case CommandLine::Command::Init:
      break;
  }
  return fwdevice::initialise(line);
}

ExitCode report(ExitCode code, const std::exception& error) {
  std::cerr << "fw-device: " << base::printableText(error.what()) << std::endl;
  return code;
}

ExitCode perform(int argc, char** argv) {
  const auto parsed = fwdevice::parseCommandLine(argc, argv);
  if (const auto* ended = std::get_if<ExitCode>(&parsed)) {
    return *ended;
  }
  try {
    return carryOut(std::get<CommandLine>(parsed));
  } catch (const fwdevice::Failure& failure) {
    return report(failure.code(), failure);
  } catch (const std::exception& error) {
    return report(ExitCode::Failed, error);
  }
}

}  // namespace

int main(int argc, char** argv) {
  base::cleanStandardOutput();
  return static_cast<int>(perform(argc, argv));
}
