// fw-pack: makes firmware packages and says what they are.
#include <csignal>
#include <exception>
#include <iostream>
#include <variant>

#include "clean-output.h"
#include "command-line.h"
#include "exit-code.h"
#include "interruption.h"
#include "printable-text.h"

namespace {

using fwpack::ExitCode;

ExitCode report(ExitCode code, const std::exception& error) {
  std::cerr << "fw-pack: " << base::printableText(error.what()) << std::endl;
  return code;
}

ExitCode perform(int argc, char** argv) {
  try {
    const auto parsed = fwpack::parseCommandLine(argc, argv);
    if (const auto* ended = std::get_if<ExitCode>(&parsed)) {
      return *ended;
    }
    const auto& options = std::get<fwpack::Options>(parsed);
    return options.command->run(options);
  } catch (const tool::Interrupted& interrupted) {
    std::signal(interrupted.signal(), SIG_DFL);
    std::raise(interrupted.signal());
    return ExitCode::Failed;
  } catch (const fwpack::Failure& failure) {
    return report(failure.code(), failure);
  } catch (const std::exception& error) {
    return report(ExitCode::Failed, error);
  }
}

}  // namespace

int main(int argc, char** argv) {
  base::cleanStandardOutput();
  fwpack::catchInterruptions();
  return static_cast<int>(perform(argc, argv));
}
