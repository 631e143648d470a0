// SPDX-License-Identifier: Apache-2.0
// Opens the library for a command: the facade and the items it listed, or what
// stands in the way. One per command; the facade itself lives to process exit.
#ifndef FW_UPDATE_TOOL_LIBRARY_H
#define FW_UPDATE_TOOL_LIBRARY_H

#include <list>
#include <optional>
#include <string>
#include <vector>

#include "fw-update-control.h"
#include "outcomes.h"

namespace tool {

struct Library {
  FWUpdateContorl* facade = nullptr;  // null when problem says why
  std::list<FWUpdateItem> items;
  std::optional<Finding> problem;
  bool bindingFailed = false;  // a module is listed that did not bind as a whole
};

Library openLibrary();
// The same, for a command that tells people when a module keeps it waiting.
Library openLibraryTelling();

// Null when no module has this library name.
const FWUpdateItem* findItem(const Library& library, const std::string& name);

// What keeps a command from using this module; empty when nothing does.
std::optional<Finding> moduleProblem(const Library& library, const std::string& name);

// "-74 (Bad message)": a module's answer with what it means, when it is an error number of the system.
std::string answerText(int answer);
// The same of the number in the library's message; what is none stays.
std::string answerText(const std::string& answer);
// For a module that answered something else than 0 when it was asked for its version.
Finding unknownVersion(const std::string& name, int result);

// One file of the controls directory, bound once more on its own to see whether
// it binds and, if not, why.
struct ModuleFile {
  std::string name;  // library name
  std::string firmwareName;
  std::string version;
  std::optional<Finding> problem;
};

ModuleFile inspectModule(const std::string& name);

// What is wrong with a module that the facade lists although it did not bind as
// a whole: its package identifier. Empty when nothing is.
std::optional<Finding> bindingProblem(const Library& library, const std::string& name);

// Every module file, in the directory's order; empty when it cannot be read.
std::vector<ModuleFile> inspectModules();

// "EXT" for modules that run their own procedure, else "ordinary".
const char* kindOf(std::string name);

}  // namespace tool

#endif
