#include "command-line.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <iostream>
#include <iterator>
#include <memory>

namespace fwdevice {
namespace {

using Arguments = std::vector<std::string>;

constexpr char kExitCodes[] =
    "Exit codes: 0 done, 1 failed, 2 usage, 3 no device, 4 device not entered;\n"
    "run and shell give the command's own, 126 not executable, 127 not found.";

// The command after "--" is none of the parser's arguments.
class RunHelp : public CLI::Formatter {
 public:
  std::string make_usage(const CLI::App*, std::string) const override {
    return "Usage: fw-device run [OPTIONS] DIR -- COMMAND [ARGUMENT...]\n";
  }
};

CLI::App* addCommand(CLI::App& app, CommandLine& line, const std::string& name, CommandLine::Command command,
                     const std::string& summary) {
  CLI::App* const added = app.add_subcommand(name, summary);
  added->add_option("DIR", line.directory, "The device's directory")->required()->type_name("");
  added->callback([&line, command] { line.command = command; });
  return added;
}

void addInit(CLI::App& app, CommandLine& line) {
  CLI::App* const init = addCommand(app, line, "init", CommandLine::Command::Init,
                                    "Make a device with example modules and images");
  init->add_flag("--fresh", line.fresh, "Also forget the components' state, locks and lists");
  init->add_option("--root", line.system.root, "Stand on this root file system (/: the host's)")
      ->type_name("ROOT");
  init->add_option("--build", line.system.build, "Take programs and modules from this build")
      ->type_name("BUILD");
  init->footer(std::string("Again on the same DIR it renews modules and images; the state stays.\n\n") +
               "Example: fw-device init /tmp/tv\n\n" + kExitCodes);
}

void addPaths(CLI::App& command, const std::string& name, std::vector<std::string>& paths,
              const std::string& summary) {
  command.add_option(name, paths, summary)
      ->type_name("PATH")
      ->expected(1)
      ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
}

void addKeep(CLI::App& command, CommandLine& line) {
  addPaths(command, "--keep", line.keepVisible, "Show this path of the host too, to read");
  addPaths(command, "--writable", line.keepWritable, "Show it, and let writes to it reach the host");
}

CLI::App* addRun(CLI::App& app, CommandLine& line) {
  CLI::App* const run =
      addCommand(app, line, "run", CommandLine::Command::Run, "Run one command on a device");
  addKeep(*run, line);
  run->formatter(std::make_shared<RunHelp>());
  run->prefix_command();
  run->footer(std::string("The programs of this build come first in the command's PATH.\n\n") +
              "Example: fw-device run /tmp/tv -- fw-update list\n\n" + kExitCodes);
  return run;
}

void addShell(CLI::App& app, CommandLine& line) {
  CLI::App* const shell =
      addCommand(app, line, "shell", CommandLine::Command::Shell, "Open a shell on a device");
  addKeep(*shell, line);
  shell->footer(std::string("It is $SHELL, else /bin/sh.\n\nExample: fw-device shell /tmp/tv\n\n") +
                kExitCodes);
}

ExitCode usageError(const CLI::App& app, const std::string& sentence) {
  const auto chosen = app.get_subcommands();
  const auto command = chosen.empty() ? std::string() : chosen.front()->get_name() + " ";
  std::cerr << "fw-device: " << sentence << "\nTry: fw-device " << command << "--help\n";
  return ExitCode::Usage;
}

// What follows the first "--" is the program's, whatever it looks like.
struct Words {
  Arguments before;
  bool separated = false;
  Arguments after;
};

Words splitAtSeparator(const Arguments& arguments) {
  const auto separator = std::find(arguments.begin(), arguments.end(), "--");
  if (separator == arguments.end()) {
    return {arguments, false, {}};
  }
  return {{arguments.begin(), separator}, true, {std::next(separator), arguments.end()}};
}

// A program also runs without "--" before it; one further on is then an argument
// of its own.
Arguments takeProgram(const CLI::App& run, const Words& words) {
  Arguments program = run.remaining();
  if (!program.empty() && program[0][0] == '-') {
    throw CLI::ValidationError("there is no option " + program[0]);
  }
  if (!program.empty() && words.separated) {
    program.emplace_back("--");
  }
  program.insert(program.end(), words.after.begin(), words.after.end());
  if (run.parsed() == program.empty()) {
    throw CLI::ValidationError(run.parsed() ? "which command? Put it after --" : "only run takes a command");
  }
  return program;
}

std::string reason(const CLI::App& app, const CLI::ParseError& error, const Words& words) {
  const bool unknown = app.get_subcommands().empty() && !words.before.empty() && words.before[0][0] != '-';
  return unknown ? "there is no command " + words.before[0] : error.what();
}

}  // namespace

std::variant<CommandLine, ExitCode> parseCommandLine(int argc, char** argv) {
  CommandLine line;
  CLI::App app("Makes devices in directories, and runs programs as if on them.", "fw-device");
  app.set_version_flag("--version", "fw-device " FW_DEVICE_VERSION);
  app.require_subcommand(1);
  app.footer(std::string("Example: fw-device init /tmp/tv && fw-device run /tmp/tv -- fw-update list\n\n") +
             kExitCodes);
  addInit(app, line);
  const CLI::App* const run = addRun(app, line);
  addShell(app, line);
  const auto words = splitAtSeparator(Arguments(argv + 1, argv + argc));
  try {
    app.parse(Arguments(words.before.rbegin(), words.before.rend()));  // the parser wants the last one first
    line.program = takeProgram(*run, words);
  } catch (const CLI::Success& wanted) {
    app.exit(wanted);
    return ExitCode::Done;
  } catch (const CLI::ParseError& error) {
    return usageError(app, reason(app, error, words));
  }
  return line;
}

}  // namespace fwdevice
