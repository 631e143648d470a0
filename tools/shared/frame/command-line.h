// SPDX-License-Identifier: Apache-2.0
// A program's tables with the places that its options go to, and what a command line
// makes of them. Independent of the type that a program keeps its options in. One thread.
#ifndef TOOLS_SHARED_FRAME_COMMAND_LINE_H
#define TOOLS_SHARED_FRAME_COMMAND_LINE_H

#include <functional>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "frame/option.h"
#include "frame/report.h"

namespace frame {

// A command's name may begin with that of its group, or of another command before it.
struct Group {
  const char* name;
  const char* summary;
};

// NOLINTNEXTLINE(cppcoreguidelines-pro-type-member-init): there is none without its endings.
struct ProgramInfo {
  const char* name;
  const char* summary;
  const char* hint;  // the last line of its help text before the exit codes
  List<OutcomeInfo> outcomes;
  Ending usage;
  Ending unexpected;
  std::size_t helpColumn = 0;            // of the descriptions; 0: a text with headings
  const char* exitCodeRemark = nullptr;  // beside the program's own codes
  List<Group> groups = {};
  std::string (*remark)() = nullptr;  // whole lines for its help text
  const char* jsonSummary = "Print one JSON document on standard output";
  Report (*explain)(const std::exception& error) = nullptr;  // what no command caught
  List<Group> sharedLines = {};  // "info, verify": commands that have one line of the help text
};

struct CommandInfo {
  const char* name = nullptr;  // "group command" in a group; empty: the program without a command
  const char* summary = nullptr;
  const char* example = nullptr;
  std::string (*remark)() = nullptr;
};

struct BoundCommand {
  CommandInfo info;
  std::vector<BoundOption> options;
  std::vector<std::string>* program = nullptr;  // not null: words after "--" go there
  std::function<void()> settle;                 // throws UsageError
  std::function<Report()> run;
};

struct BoundProgram {
  const ProgramInfo* info;
  std::vector<BoundOption> common;  // of every command
  std::vector<BoundCommand> commands;

  bool hasCommands() const { return *commands.front().info.name != '\0'; }
};

// Options that do not go together.
class UsageError : public std::runtime_error {
  using runtime_error::runtime_error;
};

struct Parsed {
  const BoundCommand* command = nullptr;  // null: there is nothing to run
  std::string name;                       // of the command, or as much of it as was recognised
  std::optional<Report> problem;          // the usage was wrong
  bool json = false;                      // for the problem
};

// Fills the options' places. Prints help, the version or the description when that is
// asked for.
Parsed parse(const BoundProgram& program, int argc, const char* const* argv);

// "Exit codes: 0 done, 1 failed", in lines of at most 80 characters.
std::string exitCodeLines(const ProgramInfo& program);

// How a command is called: "fw-pack usb [OPTIONS] IMAGE".
std::string usageOf(const BoundProgram& program, const BoundCommand& command);

}  // namespace frame

#endif
