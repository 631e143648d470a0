// SPDX-License-Identifier: Apache-2.0
#include "frame/command-line.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <cstring>
#include <iterator>
#include <memory>
#include <sstream>

#include "frame/description.h"
#include "short-help.h"

namespace frame {
namespace {

using Words = std::vector<std::string>;

constexpr std::size_t kColumns = 80;
constexpr char kDescribe[] = "--describe";

// The words after "--" are none of the parser's.
class ProgramHelp : public CLI::Formatter {
 public:
  explicit ProgramHelp(std::string usage) : usage_(std::move(usage)) {}
  std::string make_usage(const CLI::App*, std::string) const override { return "Usage: " + usage_ + "\n"; }

 private:
  const std::string usage_;
};

template <typename Value>
CLI::Option* addTo(CLI::App& app, const OptionInfo& info, const std::string& names, Value* place) {
  if constexpr (std::is_same_v<Value, bool>) {
    return app.add_flag(names, *place, info.text());
  } else {
    CLI::Option* const added = app.add_option(names, *place, info.text())->type_name(info.valueName());
    if constexpr (std::is_same_v<Value, Words>) {
      if (!info.names().empty()) {  // may be repeated, with one value each
        added->expected(1)->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
      }
    }
    return added;
  }
}

void addOption(CLI::App& app, const BoundOption& option) {
  const OptionInfo& info = *option.info;
  const std::string declared = info.declaration;
  const bool isArgument = info.names().empty();
  const std::string names = isArgument ? declared : declared.substr(0, declared.find(' '));
  CLI::Option* const added =
      std::visit([&](auto* place) { return addTo(app, info, names, place); }, option.place);
  if (isArgument) {
    added->type_name("");
  }
  if (info.isRequired) {
    added->required();
  }
  if (info.problem != nullptr) {
    added->check(info.problem);
  }
  if (info.highest != 0) {
    added->check(CLI::Range(info.lowest, info.highest).description(""));
  }
  if (info.showsDefault) {
    added->capture_default_str();
  }
  if (info.excluded != nullptr) {
    added->excludes(app.get_option(info.excluded));
  }
  if (info.needed != nullptr) {
    added->needs(app.get_option(info.needed));
  }
}

void addOptions(CLI::App& app, const std::vector<BoundOption>& options) {
  for (const BoundOption& option : options) {
    addOption(app, option);
  }
}

const char* summaryOfGroup(const ProgramInfo& program, const std::string& name) {
  for (const Group& group : program.groups) {
    if (name == group.name) {
      return group.summary;
    }
  }
  return "";
}

CLI::App* addSubcommand(CLI::App& app, const ProgramInfo& program, const CommandInfo& command) {
  const std::string name = command.name;
  const auto blank = name.find(' ');
  if (blank == std::string::npos) {
    return app.add_subcommand(name, command.summary);
  }
  const std::string group = name.substr(0, blank);
  auto parents = app.get_subcommands([&](const CLI::App* sub) { return sub->get_name() == group; });
  if (parents.empty()) {
    parents.push_back(app.add_subcommand(group, summaryOfGroup(program, group)));
    parents.front()->require_subcommand(1);
  }
  return parents.front()->add_subcommand(name.substr(blank + 1), command.summary);
}

std::string footerOf(const ProgramInfo& program, std::string (*remark)(), const std::string& example) {
  std::string text = (remark != nullptr ? remark() : "") + example + "\n" + exitCodeLines(program);
  return program.helpColumn == 0 ? text : text + "\n";  // headings come with a line feed
}

// Whether a command line with these words can be one of the command's.
bool canBeNamed(const CommandInfo& command, const Words& words) {
  std::istringstream parts(command.name);
  for (std::string part; parts >> part;) {
    if (std::find(words.begin(), words.end(), part) == words.end()) {
      return false;
    }
  }
  return true;
}

// Gives the app its command once the command's name has been met. The options of the others, which
// take most of the time of a start, are left out.
void addCommand(CLI::App& app, const BoundProgram& program, const BoundCommand& command, const Words& words,
                Parsed& parsed) {
  const bool isOwn = *command.info.name == '\0';
  CLI::App* const sub = isOwn ? &app : addSubcommand(app, *program.info, command.info);
  if (!canBeNamed(command.info, words)) {
    return;
  }
  sub->footer(footerOf(*program.info, command.info.remark, std::string("Example: ") + command.info.example));
  addOptions(*sub, command.options);
  if (!isOwn || !program.hasCommands()) {  // the program has them already
    addOptions(*sub, program.common);
  }
  if (command.program != nullptr) {
    sub->formatter(std::make_shared<ProgramHelp>(usageOf(program, command)));
    sub->prefix_command();
  }
  // A command whose name is also that of a group is met with each of the group's.
  sub->callback([&parsed, &command] {
    if (parsed.command == nullptr ||
        std::strlen(command.info.name) > std::strlen(parsed.command->info.name)) {
      parsed.command = &command;
    }
  });
}

// What follows the first "--" is another program's, whatever it looks like.
struct Split {
  Words before;
  bool separated = false;
  Words after;
};

bool takesProgram(const BoundCommand& command) {
  return command.program != nullptr;
}

Split split(const BoundProgram& program, int argc, const char* const* argv) {
  const Words words(argv + 1, argv + argc);
  const auto separator = std::find(words.begin(), words.end(), "--");
  const bool any = std::any_of(program.commands.begin(), program.commands.end(), takesProgram);
  if (!any || separator == words.end()) {
    return {words, false, {}};
  }
  return {{words.begin(), separator}, true, {std::next(separator), words.end()}};
}

// A program also runs without "--" before it; one further on is then an argument
// of its own.
void takeProgram(const CLI::App& app, const BoundProgram& program, const Parsed& parsed, const Split& words) {
  if (!takesProgram(*parsed.command)) {
    const auto taker = std::find_if(program.commands.begin(), program.commands.end(), takesProgram);
    if (words.separated) {
      throw UsageError(std::string("only ") + taker->info.name + " takes a command");
    }
    return;
  }
  Words& taken = *parsed.command->program;
  taken = app.get_subcommands().front()->remaining();
  if (!taken.empty() && taken[0][0] == '-') {
    throw UsageError("there is no option " + taken[0]);
  }
  if (!taken.empty() && words.separated) {
    taken.emplace_back("--");
  }
  taken.insert(taken.end(), words.after.begin(), words.after.end());
  if (taken.empty()) {
    throw UsageError("which command? Put it after --");
  }
}

// For usage errors, when parsing never came to the option.
bool asksForJson(const Words& words) {
  return std::any_of(words.begin(), words.end(), [](const std::string& word) {
    return word == "--json" || word.find("ndjson") != std::string::npos;
  });
}

// "usb apply", or as much of it as was recognised.
std::string chosenCommand(const CLI::App& app) {
  const auto chosen = app.get_subcommands();
  if (chosen.empty()) {
    return "";
  }
  const std::string inner = chosenCommand(*chosen.front());
  return chosen.front()->get_name() + (inner.empty() ? "" : " " + inner);
}

// The first word that is no option, when it is no command either.
std::string unknownCommand(const CLI::App& app, const BoundProgram& program) {
  if (!program.hasCommands() || !app.get_subcommands().empty()) {
    return "";
  }
  const Words left = app.remaining();
  const auto word =
      std::find_if(left.begin(), left.end(), [](const std::string& one) { return one[0] != '-'; });
  return word == left.end() ? "" : *word;
}

void fail(Parsed& parsed, const BoundProgram& program, const CLI::App& app, const std::string& sentence,
          const Words& words) {
  const std::string unknown = unknownCommand(app, program);
  parsed.command = nullptr;
  parsed.name = chosenCommand(app);
  parsed.json = asksForJson(words);
  const std::string called = program.info->name + std::string(parsed.name.empty() ? "" : " ") + parsed.name;
  parsed.problem = Report(program.info->usage, unknown.empty() ? sentence : "there is no command " + unknown,
                          "Try: " + called + " --help");
}

// One command has the line, the others are not listed.
std::shared_ptr<tool::ShortHelp> shortHelpOf(const ProgramInfo& program) {
  auto help = std::make_shared<tool::ShortHelp>(program.helpColumn);
  for (const Group& line : program.sharedLines) {
    help->share(line.name, line.summary);
  }
  return help;
}

void shareLines(const CLI::App& app, const ProgramInfo& program) {
  for (const Group& line : program.sharedLines) {
    const std::string names = line.name;
    for (std::size_t at = names.find(", "); at != std::string::npos; at = names.find(", ", at + 1)) {
      const std::string name = names.substr(at + 2);
      app.get_subcommand(name.substr(0, name.find(',')))->group("");
    }
  }
}

void build(CLI::App& app, const BoundProgram& program, const Words& words, Parsed& parsed) {
  const ProgramInfo& info = *program.info;
  if (info.helpColumn != 0) {
    app.formatter(shortHelpOf(info));
  }
  app.set_version_flag("--version", std::string(info.name) + " " FW_TOOL_VERSION);
  if (program.hasCommands()) {
    app.require_subcommand(ownOf(program) == nullptr ? 1 : 0, 1);
    app.footer(footerOf(info, info.remark, info.hint));
    addOptions(app, program.common);
  }
  for (const BoundCommand& command : program.commands) {
    addCommand(app, program, command, words, parsed);
  }
  shareLines(app, info);
}

// In lines, each part whole.
std::string filled(const Words& parts) {
  std::string text = parts.front();
  std::size_t column = text.size();
  for (auto part = std::next(parts.begin()); part != parts.end(); ++part) {
    const bool fits = column + 1 + part->size() <= kColumns;
    text += (fits ? " " : "\n  ") + *part;
    column = (fits ? column + 1 : 2) + part->size();
  }
  return text;
}

}  // namespace

Parsed parse(const BoundProgram& program, int argc, const char* const* argv) {
  Parsed parsed;
  if (argc == 2 && std::strcmp(argv[1], kDescribe) == 0) {
    putDescription(program);
    return parsed;
  }
  CLI::App app(program.info->summary, program.info->name);
  const Split words = split(program, argc, argv);
  build(app, program, words.before, parsed);
  try {
    app.parse(Words(words.before.rbegin(), words.before.rend()));  // the parser wants the last one first
    takeProgram(app, program, parsed, words);
    if (parsed.command->settle) {
      parsed.command->settle();
    }
    parsed.name = parsed.command->info.name;
  } catch (const CLI::Success& wanted) {
    parsed.command = nullptr;
    app.exit(wanted);
  } catch (const CLI::ParseError& error) {
    fail(parsed, program, app, error.what(), words.before);
  } catch (const UsageError& error) {
    fail(parsed, program, app, error.what(), words.before);
  }
  return parsed;
}

std::string exitCodeLines(const ProgramInfo& program) {
  Words parts = {"Exit codes:"};
  for (const OutcomeInfo& outcome : program.outcomes) {
    if (outcome.meaning != nullptr) {
      parts.push_back(std::to_string(outcome.exitCode) + " " + outcome.meaning + ",");
    }
  }
  parts.back().pop_back();
  if (program.exitCodeRemark != nullptr) {
    parts.back() += ";";
    parts.emplace_back(program.exitCodeRemark);
  }
  return filled(parts);
}

std::string usageOf(const BoundProgram& program, const BoundCommand& command) {
  const std::string called = command.info.name;
  std::string text = program.info->name + (called.empty() ? "" : " " + called) + " [OPTIONS]";
  for (const BoundOption& option : command.options) {
    if (option.info->names().empty()) {
      const std::string name = option.info->declaration + std::string(option.takesMany() ? "..." : "");
      text += option.info->isRequired ? " " + name : " [" + name + "]";
    }
  }
  return text + (takesProgram(command) ? " -- COMMAND [ARGUMENT...]" : "");
}

}  // namespace frame
