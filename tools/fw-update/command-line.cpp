#include "command-line.h"

#include <CLI/CLI.hpp>

#include <cstring>
#include <iostream>
#include <memory>

#include "commands.h"
#include "short-help.h"

namespace tool {
namespace {

constexpr std::size_t kMaximumData = 127;

constexpr const char* kExitCodes =
    "Exit codes:  0 updated or answered  1 unexpected error  2 usage  3 nothing to do\n"
    "  4 no such module  5 refused image  6 module failed  7 timed out  8 not allowed\n"
    "  9 bad module  10 no modules  11 no download  12 lock taken  13 crash  14 hang\n";

std::string callerLines() {
  std::string lines = "Callers, and where their images come from:\n";
  for (const fwcallers::Caller& caller : fwcallers::kCallers) {
    if (caller.name != nullptr) {
      lines += "  " + (caller.name + std::string(20, ' ')).substr(0, 20) + caller.places + "\n";
    }
  }
  return lines;
}

std::string footer(const Command& command) {
  return (command.accepts(AcceptsCaller) ? callerLines() : std::string()) + "Example: " + command.example +
         "\n" + kExitCodes;
}

void addOutputOptions(CLI::App& app, Options& options) {
  app.add_flag("--json", options.json, "Print one JSON document on standard output");
  app.add_flag("--log", options.log, "Show the library's log on standard error");
}

void addCallerOptions(CLI::App& app, Options& options) {
  app.add_option_function<std::string>(
         "--caller", [&options](const std::string& name) { options.caller = fwcallers::findCaller(name); },
         "Who asks")
      ->check([](const std::string& name) {
        return fwcallers::findCaller(name) != nullptr ? std::string() : "there is no caller " + name;
      })
      ->type_name("NAME");
  app.add_option("--data", options.data, "Request data for the module, at most 127 characters")
      ->check([](const std::string& data) {
        return data.size() <= kMaximumData ? std::string() : std::string("more than 127 characters");
      })
      ->type_name("TEXT");
}

void addPackageOptions(CLI::App& app, Options& options) {
  app.add_option("DIR", options.directory, "Where the packages lie; default: the mounted USB drive")
      ->type_name("");
  app.add_option("--key-file", options.keyFile, "The packages' key: a file of 32 bytes")
      ->required()
      ->type_name("FILE");
  app.add_flag("--allow-rollback", options.allowRollback, "Packages below the minimum version too; for root");
}

std::string summaryOfGroup(const std::string& name) {
  for (const CommandGroup& group : kCommandGroups) {
    if (name == group.name) {
      return group.summary;
    }
  }
  return "";
}

// A command's name may begin with that of its group.
CLI::App* addSubcommand(CLI::App& app, const Command& command) {
  const std::string name = command.name;
  const auto blank = name.find(' ');
  if (blank == std::string::npos) {
    return app.add_subcommand(name, command.summary);
  }
  const std::string group = name.substr(0, blank);
  auto parents = app.get_subcommands([&](const CLI::App* sub) { return sub->get_name() == group; });
  if (parents.empty()) {
    parents.push_back(app.add_subcommand(group, summaryOfGroup(group)));
    parents.front()->require_subcommand(1);
  }
  return parents.front()->add_subcommand(name.substr(blank + 1), command.summary);
}

void addDownloadOptions(CLI::App& app, Options& options) {
  CLI::Option* names = app.add_option("NAME", options.modules, "Library names, as fw-update list shows them");
  names->type_name("");
  app.add_flag("--all", options.allModules, "Every module that has a package")->excludes(names);
  app.add_flag("--wait", options.wait, "Wait for the downloads and show how they go");
}

void checkDownloadOptions(const Options& options) {
  if (options.modules.empty() && !options.allModules) {
    throw CLI::ValidationError("which module? Name it, or use --all");
  }
  if (options.ndjson && !options.wait) {
    throw CLI::ValidationError("--progress needs --wait");
  }
}

void addIsolationOptions(CLI::App& app, Options& options) {
  CLI::Option* isolated =
      app.add_flag("--isolated", options.isolated, "In a child process, watched for crashes and hangs");
  app.add_option("--patience", options.patience, "How long a silent module is waited for; default: 120")
      ->check(CLI::Range(1U, 86400U).description(""))
      ->needs(isolated)
      ->type_name("SECONDS");
}

void addCommand(CLI::App& app, const Command& command, Options& options) {
  CLI::App* sub = addSubcommand(app, command);
  sub->footer(footer(command));
  if (command.accepts(AcceptsModule)) {
    sub->add_option("NAME", options.module, "Library name: the module's file without \".so\"")
        ->required()
        ->type_name("");
  }
  if (command.accepts(AcceptsModules)) {
    addDownloadOptions(*sub, options);
  }
  if (command.accepts(AcceptsCaller)) {
    addCallerOptions(*sub, options);
  }
  if (command.accepts(AcceptsPackages)) {
    addPackageOptions(*sub, options);
  }
  if (command.accepts(AcceptsProgress)) {
    sub->add_option_function<std::string>(
           "--progress", [&options](const std::string&) { options.ndjson = true; },
           "Print one JSON object a line; the last is the result")
        ->check([](const std::string& form) {
          return form == "ndjson" ? std::string() : "the only form is ndjson, not " + form;
        })
        ->type_name("ndjson");
  }
  if (command.accepts(AcceptsDryRun)) {
    sub->add_flag("--dry-run", options.dryRun, "Say what would run and for how long; change nothing");
  }
  if (command.accepts(AcceptsIsolated)) {
    addIsolationOptions(*sub, options);
  }
  if (command.accepts(AcceptsIgnoreHidden)) {
    sub->add_flag("--ignore-hidden", options.ignoreHidden,
                  "Processes that cannot be looked at do not use the lock");
  }
  addOutputOptions(*sub, options);
  sub->callback([&options, &command, sub] {
    options.command = &command;
    if (command.accepts(AcceptsModules)) {
      checkDownloadOptions(options);
    }
    if (command.accepts(AcceptsCaller) && options.caller->fixedData != nullptr && sub->count("--data") > 0) {
      throw CLI::ValidationError("--data", std::string("caller ") + options.caller->name + " has fixed data");
    }
  });
}

// For usage errors, when parsing never came to the option.
bool asksForJson(int argc, const char* const* argv) {
  for (int i = 1; i < argc; ++i) {
    if (std::strcmp(argv[i], "--json") == 0 || std::strstr(argv[i], "ndjson") != nullptr) {
      return true;
    }
  }
  return false;
}

// The first word that is no option, when it is no command either.
std::string unknownCommand(const CLI::App& app, int argc, const char* const* argv) {
  for (int i = 1; i < argc && app.get_subcommands().empty(); ++i) {
    if (argv[i][0] != '-') {
      return argv[i];
    }
  }
  return "";
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

Report usageError(const CLI::App& app, const CLI::ParseError& error, const std::string& unknown) {
  const std::string command = chosenCommand(app);
  Report report;
  report.command = command;
  report.finding = {Outcome::Usage, unknown.empty() ? error.what() : "There is no command " + unknown + ".",
                    "Try: fw-update " + (command.empty() ? "" : command + " ") + "--help"};
  return report;
}

}  // namespace

std::variant<Options, Ended> parseCommandLine(int argc, const char* const* argv) {
  Options options;
  CLI::App app("Updates the firmware of this device's add-on components.", "fw-update");
  app.formatter(std::make_shared<ShortHelp>(22));
  app.set_version_flag("--version", "fw-update " FW_UPDATE_VERSION);
  app.require_subcommand(1);
  app.footer(std::string("Each command explains itself: fw-update update --help\n") + kExitCodes);
  addOutputOptions(app, options);
  for (const Command& command : kCommands) {
    addCommand(app, command, options);
  }
  try {
    app.parse(argc, argv);
  } catch (const CLI::Success& wanted) {
    app.exit(wanted);
    return Ended{};
  } catch (const CLI::ParseError& error) {
    return Ended{usageError(app, error, unknownCommand(app, argc, argv)), asksForJson(argc, argv)};
  }
  return options;
}

}  // namespace tool
