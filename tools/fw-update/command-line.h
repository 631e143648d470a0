// The command line: one table of commands, and the options they share.
#ifndef FW_UPDATE_TOOL_COMMAND_LINE_H
#define FW_UPDATE_TOOL_COMMAND_LINE_H

#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "callers.h"
#include "report.h"

namespace tool {

struct Command;

struct Options {
  const Command* command = nullptr;
  std::string module;
  const fwcallers::Caller* caller = fwcallers::findCaller(fwcallers::kDefaultCaller);
  std::string data;
  std::string directory;  // of USB packages; empty: the drive
  std::string keyFile;
  bool allowRollback = false;  // of USB packages
  bool json = false;
  bool ndjson = false;
  bool log = false;
  bool dryRun = false;
  std::vector<std::string> modules;  // download
  bool allModules = false;           // download
  bool wait = false;                 // download
  bool ignoreHidden = false;         // lock recover
  bool isolated = false;
  unsigned int patience = 120;  // seconds; isolated

  // The text that reaches the module.
  std::string requestData() const { return caller->fixedData != nullptr ? caller->fixedData : data; }
};

// What a command accepts besides the options of all; a sum.
enum Accepts : unsigned {
  AcceptsNothing = 0,
  AcceptsModule = 1,     // NAME
  AcceptsCaller = 2,     // --caller and --data
  AcceptsProgress = 4,   // --progress
  AcceptsDryRun = 8,     // --dry-run
  AcceptsPackages = 16,  // DIR, --key-file and --allow-rollback
  AcceptsModules = 32,   // NAME... or --all, and --wait
  AcceptsIgnoreHidden = 64,
  AcceptsIsolated = 128  // --isolated and --patience
};

struct Command {
  const char* name;  // "group command" for a command of a group
  const char* summary;
  unsigned accepted;
  const char* example;
  Report (*run)(const Options& options);

  constexpr bool accepts(Accepts what) const { return (accepted & what) != 0; }
};

// What parsing gives when there is nothing to run: help or the version was
// printed (0), or the usage was wrong (a report for the chosen output).
struct Ended {
  std::optional<Report> usageError;
  bool json = false;
};

std::variant<Options, Ended> parseCommandLine(int argc, const char* const* argv);

}  // namespace tool

#endif
