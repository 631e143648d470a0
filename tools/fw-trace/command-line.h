// The command line: one table of commands, and the options they share.
#ifndef FW_TRACE_COMMAND_LINE_H
#define FW_TRACE_COMMAND_LINE_H

#include <cstdint>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "outcome.h"

namespace tracetool {

struct Command;

struct Options {
  const Command* command = nullptr;
  std::string directory;
  std::vector<std::string> traces;  // files or process ids; none: all of the directory
  std::string module;
  std::string function;
  std::string since;
  std::string until;
  std::string format;
  std::string output;
  bool json = false;
};

enum Takes : unsigned {
  TakesNothing = 0,
  TakesFilters = 1,  // --module, --function, --since, --until
  TakesFormat = 2,   // --format, --output
};

struct Command {
  const char* name;
  const char* summary;
  unsigned takes;
  const char* example;
  Report (*run)(const Options& options);
};

// What parsing gives when there is nothing to run: help or the version was printed
// (no report), or the usage was wrong.
struct Ended {
  std::optional<Report> usageError;
  bool json = false;
};

std::variant<Options, Ended> parseCommandLine(int argc, const char* const* argv);

}  // namespace tracetool

#endif
