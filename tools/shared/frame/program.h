// SPDX-License-Identifier: Apache-2.0
// The frame of every command: a program is a table of commands with their options, and
// main is one call. Options is the program's own struct; its bool json is the frame's
// option --json, which each command has.
#ifndef TOOLS_SHARED_FRAME_PROGRAM_H
#define TOOLS_SHARED_FRAME_PROGRAM_H

#include <string>
#include <variant>
#include <vector>

#include "frame/command-line.h"
#include "frame/option.h"
#include "frame/report.h"

namespace frame {

template <typename Options>
struct Command {
  CommandInfo info;
  List<Option<Options>> options[6];
  Report (*run)(const Options& options);                 // may throw Failure
  void (*settle)(Options& options) = nullptr;            // looks at all options together; throws UsageError
  std::vector<std::string> Options::*program = nullptr;  // takes another program after "--"
};

template <typename Options>
struct Program {
  ProgramInfo info;
  List<Option<Options>> common;  // of every command, beside --json
  List<Command<Options>> commands;
};

template <typename Options>
void bindOptions(const List<Option<Options>>& rows, Options& options, std::vector<BoundOption>& bound) {
  for (const Option<Options>& row : rows) {
    bound.push_back({&row, std::visit([&](auto member) { return Place(&(options.*member)); }, row.member)});
  }
}

template <typename Options>
BoundCommand bindCommand(const Command<Options>& command, Options& options) {
  BoundCommand bound;
  bound.info = command.info;
  for (const auto& rows : command.options) {
    bindOptions(rows, options, bound.options);
  }
  if (command.program != nullptr) {
    bound.program = &(options.*command.program);
  }
  if (command.settle != nullptr) {
    bound.settle = [&command, &options] { command.settle(options); };
  }
  bound.run = [&command, &options] { return command.run(options); };
  return bound;
}

// A program and an Options that outlive what is returned.
template <typename Options>
BoundProgram bind(const Program<Options>& program, Options& options) {
  static const OptionInfo kJson{"--json", program.info.jsonSummary};
  BoundProgram bound{&program.info, {{&kJson, &options.json}}, {}};
  bindOptions(program.common, options, bound.common);
  for (const Command<Options>& command : program.commands) {
    bound.commands.push_back(bindCommand(command, options));
  }
  return bound;
}

// Runs a parsed command; what it throws becomes a report.
Report run(const ProgramInfo& program, const BoundCommand& command);

// Parses, runs the command and puts its report out. The exit code.
int perform(const BoundProgram& program, const bool& json, int argc, char** argv);

template <typename Options>
int perform(const Program<Options>& program, int argc, char** argv) {
  Options options;
  return perform(bind(program, options), options.json, argc, argv);
}

}  // namespace frame

#endif
