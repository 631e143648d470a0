// The commands themselves, one source file each.
#ifndef FW_MODULE_COMMANDS_H
#define FW_MODULE_COMMANDS_H

#include "command-line.h"

namespace fwmodule {

Outcome runNew(const Options& options);
Outcome runCheck(const Options& options);

inline constexpr Command kCommands[] = {
    {"new", "Write a new module's project, with build and tests", "fw-module new libdoor", runNew},
    {"check", "Check a module against its contract, in a private device", "fw-module check build/libdoor.so",
     runCheck},
};

}  // namespace fwmodule

#endif
