// The command line: one table of commands.
#ifndef FW_MODULE_COMMAND_LINE_H
#define FW_MODULE_COMMAND_LINE_H

#include <chrono>
#include <string>
#include <variant>
#include <vector>

#include "outcome.h"

namespace fwmodule {

struct Command;

struct Options {
  const Command* command = nullptr;
  bool json = false;
  // new
  std::string name;
  std::string language = "c++";
  std::string directory;  // empty: the name
  // check
  std::string file;
  std::chrono::seconds limit{30};
  std::string image;
  std::string version;
  std::vector<std::string> keepVisible;
  bool list = false;
  std::string junit;
};

struct Command {
  const char* name;
  const char* summary;
  const char* example;
  // Prints what came of it. Throws Failure.
  Outcome (*run)(const Options& options);
};

// What parsing gives when there is nothing to run; everything has been printed, but for
// the sentence when the usage was wrong.
struct Ended {
  std::string usageError;  // empty when help or the version was asked for
  bool json = false;
};

std::variant<Options, Ended> parseCommandLine(int argc, const char* const* argv);

}  // namespace fwmodule

#endif
