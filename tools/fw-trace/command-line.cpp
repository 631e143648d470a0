#include "command-line.h"

#include <CLI/CLI.hpp>

#include <cstring>
#include <memory>

#include "commands.h"
#include "export-format.h"
#include "short-help.h"
#include "time-text.h"
#include "trace/trace-settings.h"

namespace tracetool {
namespace {

constexpr const char* kExitCodes =
    "Exit codes:\n"
    "  0 answered   1 unexpected error   2 usage   3 nothing found   4 cannot be read\n";

void addTime(CLI::App& app, const char* name, std::string& value, const char* summary) {
  app.add_option(name, value, summary)
      ->check([](const std::string& text) {
        return isTimeText(text) ? std::string()
                                : "not a time: " + text + " (14:03, 14:03:07.5 or 2026-01-31T14:03:07)";
      })
      ->type_name("TIME");
}

void addFilters(CLI::App& app, Options& options) {
  app.add_option("--module", options.module, "Only messages that name this module or its firmware")
      ->type_name("NAME");
  app.add_option("--function", options.function, "Only messages of this function")->type_name("NAME");
  addTime(app, "--since", options.since, "Only from then on: 14:03:07.5 or 2026-01-31T14:03");
  addTime(app, "--until", options.until, "Only up to this time");
}

void addFormat(CLI::App& app, Options& options) {
  app.add_option("--format", options.format, "json, perfetto or html")
      ->required()
      ->check([](const std::string& name) {
        return findFormat(name) != nullptr ? std::string() : "there is no format " + name;
      })
      ->type_name("FORMAT");
  app.add_option("-o,--output", options.output, "Write to this file instead of standard output")
      ->type_name("FILE");
}

void addCommonOptions(CLI::App& app, Options& options) {
  app.add_option("--directory", options.directory, "Where the traces are")->type_name("DIR");
  app.add_flag("--json", options.json, "Print JSON on standard output");
}

void addCommand(CLI::App& app, const Command& command, Options& options) {
  CLI::App* sub = app.add_subcommand(command.name, command.summary);
  sub->footer(std::string("Example: ") + command.example + "\n" + kExitCodes);
  sub->add_option("TRACE", options.traces, "Files or process ids; without any, all of the directory")
      ->type_name("");
  if ((command.takes & TakesFilters) != 0) {
    addFilters(*sub, options);
  }
  if ((command.takes & TakesFormat) != 0) {
    addFormat(*sub, options);
  }
  addCommonOptions(*sub, options);
  sub->callback([&options, &command] { options.command = &command; });
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

std::string defaultDirectory() {
  const std::string directory = fwplatform::trace::settingsFromEnvironment().directory;
  return directory.empty() ? fwplatform::trace::kDefaultDirectory : directory;
}

}  // namespace

std::variant<Options, Ended> parseCommandLine(int argc, const char* const* argv) {
  Options options;
  options.directory = defaultDirectory();
  CLI::App app("Shows what firmware updates did, from the traces that processes leave.", "fw-trace");
  app.formatter(std::make_shared<tool::ShortHelp>(24));
  app.set_version_flag("--version", "fw-trace " FW_TRACE_VERSION);
  app.require_subcommand(1);
  app.footer("The traces are in " + options.directory +
             " (FW_UPDATE_TRACE).\nEach command explains itself: fw-trace show --help\n" + kExitCodes);
  addCommonOptions(app, options);
  for (const Command& command : kCommands) {
    addCommand(app, command, options);
  }
  try {
    app.parse(argc, argv);
  } catch (const CLI::Success& wanted) {
    app.exit(wanted);
    return Ended{};
  } catch (const CLI::ParseError& error) {
    Report report;
    report.outcome = Outcome::Usage;
    report.message = std::string(error.what()) + "\nTry: fw-trace --help";
    return Ended{report, asksForJson(argc, argv)};
  }
  return options;
}

}  // namespace tracetool
