#include "command-line.h"

#include <CLI/CLI.hpp>

#include <cstring>
#include <iostream>
#include <memory>

#include "commands.h"
#include "module-name.h"
#include "short-help.h"
#include "templates.h"

namespace fwmodule {
namespace {

constexpr std::size_t kColumn = 24;
constexpr int kLongestLimit = 86400;  // seconds

constexpr const char* kExitCodes =
    "Exit codes:\n"
    "  0 written, or clean   1 errors found     2 usage   3 only warnings found\n"
    "  4 not possible here   5 unexpected error\n";

void addJson(CLI::App& app, Options& options) {
  app.add_flag("--json", options.json, "Print one JSON document on standard output");
}

void addNew(CLI::App& app, Options& options) {
  app.add_option("NAME", options.name, "The library: libdoor, or libEXT-door for an EXT- module")
      ->required()
      ->type_name("")
      ->check([](const std::string& name) {
        try {
          parseModuleName(name);
          return std::string();
        } catch (const BadName& bad) {
          return std::string(bad.what());
        }
      });
  app.add_option("--language", options.language, "c++ or c; default: c++")
      ->check([](const std::string& language) {
        return findLanguage(language) != nullptr ? std::string()
                                                 : "the languages are c++ and c, not " + language;
      })
      ->type_name("LANGUAGE");
  app.add_option("--directory", options.directory, "Where to write it; default: NAME")->type_name("DIR");
}

void addTrialOptions(CLI::App& app, Options& options) {
  app.add_option_function<int>(
         "--timeout", [&options](int seconds) { options.limit = std::chrono::seconds(seconds); },
         "A call that lasts longer counts as hung; default: 30")
      ->check(CLI::Range(1, kLongestLimit).description(""))
      ->type_name("SECONDS");
  app.add_option("--image", options.image, "A good image; default: random bytes")->type_name("FILE");
  app.add_option("--version", options.version, "Its version; default: the active one, counted up")
      ->type_name("TEXT");
  app.add_option("--keep", options.keepVisible, "Show this path of the host too (may be repeated)")
      ->type_name("PATH")
      ->expected(1)
      ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
}

void addCheck(CLI::App& app, Options& options) {
  CLI::Option* const file = app.add_option("FILE", options.file, "The module's library")->type_name("");
  addTrialOptions(app, options);
  app.add_flag("--list", options.list, "List the checks instead")->excludes(file);
  app.add_option("--junit", options.junit, "Also write a JUnit report")->type_name("FILE");
}

void checkOptions(const Options& options) {
  if (options.command->run == runCheck && options.file.empty() && !options.list) {
    throw CLI::ValidationError("which module? Name its library, such as build/libdoor.so");
  }
  if (!options.image.empty() && options.version.empty()) {
    throw CLI::ValidationError("--image needs the image's --version");
  }
}

void addCommand(CLI::App& app, const Command& command, Options& options) {
  CLI::App* const sub = app.add_subcommand(command.name, command.summary);
  sub->footer(std::string("Example: ") + command.example + "\n" + kExitCodes);
  if (command.run == runNew) {
    addNew(*sub, options);
  } else {
    addCheck(*sub, options);
  }
  addJson(*sub, options);
  sub->callback([&options, &command] {
    options.command = &command;
    checkOptions(options);
  });
}

// For usage errors, when parsing never came to the option.
bool asksForJson(int argc, const char* const* argv) {
  for (int i = 1; i < argc; ++i) {
    if (std::strcmp(argv[i], "--json") == 0) {
      return true;
    }
  }
  return false;
}

std::string usageError(const CLI::App& app, const CLI::ParseError& error, int argc, const char* const* argv) {
  const auto chosen = app.get_subcommands();
  const std::string command = chosen.empty() ? "" : chosen.front()->get_name() + " ";
  const bool unknown = chosen.empty() && argc > 1 && argv[1][0] != '-';
  const std::string sentence = unknown ? "there is no command " + std::string(argv[1]) : error.what();
  return sentence + "\nTry: fw-module " + command + "--help";
}

}  // namespace

std::variant<Options, Ended> parseCommandLine(int argc, const char* const* argv) {
  Options options;
  CLI::App app("Writes update modules, and checks that they keep their contract.", "fw-module");
  app.formatter(std::make_shared<tool::ShortHelp>(kColumn));
  app.set_version_flag("--version", "fw-module " FW_MODULE_VERSION);
  app.require_subcommand(1);
  app.footer(std::string("Each command explains itself: fw-module check --help\n") +
             "Example: fw-module new libdoor\n" + kExitCodes);
  for (const Command& command : kCommands) {
    addCommand(app, command, options);
  }
  try {
    app.parse(argc, argv);
  } catch (const CLI::Success& wanted) {
    app.exit(wanted);
    return Ended{};
  } catch (const CLI::ParseError& error) {
    return Ended{usageError(app, error, argc, argv), asksForJson(argc, argv)};
  }
  return options;
}

}  // namespace fwmodule
