// SPDX-License-Identifier: Apache-2.0
// What the library found out about each module's USB package, read from its log:
// its results alone speak of all modules together. Plain values and functions.
#ifndef FW_UPDATE_TOOL_USB_PACKAGES_H
#define FW_UPDATE_TOOL_USB_PACKAGES_H

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

#include "library/library-log.h"
#include "library/library.h"

namespace tool {

struct PackageState {
  std::string library;
  std::string firmware;
  std::string version;  // active when the library was opened
  bool needed = false;
  int seconds = 0;         // when needed
  bool notSigned = false;  // says the verification library
  Finding finding;         // why not, or how the update went
  std::optional<std::string> versionAfter = {};
};

// The library's messages of one module each, in the order of its work.
std::vector<LogMessages> packageTurns(const LogMessages& messages);

// Every module, after the library estimated.
std::vector<PackageState> readEstimate(const Library& library, const LogMessages& messages);

// The same after the library applied the packages: what became of those needed.
void readResults(std::vector<PackageState>& states, const LogMessages& messages);

// False when the library took packages without checking their signatures.
bool signaturesChecked(const LogMessages& messages);

// The module whose package is being written, with its message; empty between two.
struct RunningPackage {
  std::size_t index = 0;  // among the states
  std::chrono::steady_clock::time_point since;
};
std::optional<RunningPackage> runningPackage(const std::vector<PackageState>& states,
                                             const LogMessages& messages);

// The first thing that went wrong; empty when nothing did.
std::optional<Finding> firstProblem(const std::vector<PackageState>& states);

}  // namespace tool

#endif
