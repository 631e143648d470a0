// SPDX-License-Identifier: Apache-2.0
#include "frame/program.h"

#include <csignal>
#include <exception>

#include "clean-output.h"
#include "interrupted.h"

namespace frame {
namespace {

int performGuarded(const BoundProgram& program, const bool& json, int argc, char** argv) {
  const ProgramInfo& info = *program.info;
  const Parsed parsed = parse(program, argc, argv);
  if (parsed.problem) {
    return put(*parsed.problem, info.name, parsed.name, parsed.json ? Form::Json : Form::Text,
               info.unexpected);
  }
  if (parsed.command == nullptr) {
    return 0;
  }
  const Report report = run(info, *parsed.command);
  return put(report, info.name, parsed.name, json ? Form::Json : Form::Text, info.unexpected);
}

}  // namespace

Report run(const ProgramInfo& program, const BoundCommand& command) {
  try {
    return command.run();
  } catch (const tool::Interrupted&) {
    throw;
  } catch (const Failure& failure) {
    return Report(failure.ending(), failure.what(), failure.remedy());
  } catch (const std::exception& error) {
    return program.explain != nullptr ? program.explain(error) : Report(program.unexpected, error.what());
  }
}

int perform(const BoundProgram& program, const bool& json, int argc, char** argv) {
  base::cleanStandardOutput();
  try {
    return performGuarded(program, json, argc, argv);
  } catch (const tool::Interrupted& interrupted) {  // what was unfinished is put away
    std::signal(interrupted.signal(), SIG_DFL);
    return std::raise(interrupted.signal());
  } catch (const std::exception& error) {  // before or after the command: out of memory, as a rule
    complain(program.info->name, error.what(), "");
    return program.info->unexpected->exitCode;
  }
}

}  // namespace frame
