// What a watched command tells the process that watches it: the library's messages,
// what it is about to have a module do, and its result. One datagram each. Values, and
// functions that turn them into datagrams and back.
#ifndef FW_UPDATE_TOOL_TOLD_H
#define FW_UPDATE_TOOL_TOLD_H

#include <optional>
#include <string>
#include <string_view>
#include <variant>

#include "library/library-log.h"

namespace tool {

enum class Step {
  Start,      // all modules are loaded, no one in particular
  Load,       // the module is loaded and says who it is
  Version,    // it is asked for its version
  Check,      // it is asked whether it needs the image
  Wait,       // its update waits for the lock
  Write,      // it updates
  Procedure,  // it runs its own procedure
  Package,    // it writes a package's image
  Finish,     // its update is over
  End,        // the command has its result
};

// A step of a module is about to begin.
struct StepTold {
  Step step = Step::Start;
  std::string module;    // library name; empty when it may be any
  std::string firmware;  // its firmware name, when known
};

// The module is asked for its progress, beside everything else; or has answered.
struct ProgressTold {
  bool asking = false;
};

struct ResultTold {
  int exitCode = 0;
};

using Told = std::variant<LogMessage, StepTold, ProgressTold, ResultTold>;

std::string toDatagram(const Told& told);
// Empty for what is none: a module may have written anything anywhere.
std::optional<Told> fromDatagram(std::string_view datagram);

}  // namespace tool

#endif
