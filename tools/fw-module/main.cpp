// SPDX-License-Identifier: Apache-2.0
// fw-module: writes the projects of update modules, and checks modules against their
// contract.
#include <string>
#include <system_error>
#include <vector>

#include "commands.h"
#include "frame/program.h"
#include "module-name.h"
#include "options.h"
#include "outcome.h"
#include "templates.h"

namespace {

using fwmodule::Options;
using fwmodule::Outcome;
using Option = frame::Option<Options>;

constexpr int kLongestLimit = 86400;  // seconds

std::string nameProblem(const std::string& name) {
  try {
    fwmodule::parseModuleName(name);
    return "";
  } catch (const fwmodule::BadName& bad) {
    return bad.what();
  }
}

std::vector<std::string> languages() {
  return {"c++", "c"};
}

std::string languageProblem(const std::string& language) {
  return fwmodule::findLanguage(language) != nullptr ? "" : "the languages are c++ and c, not " + language;
}

constexpr Option kNew[] = {
    Option("NAME", &Options::name, "The library: libdoor, or libEXT-door for an EXT- module")
        .required()
        .checked(nameProblem),
    Option("--language LANGUAGE", &Options::language, "c++ or c; default: c++")
        .checked(languageProblem)
        .of(languages),
    {"--directory DIR", &Options::directory, "Where to write it; default: NAME"},
};

constexpr Option kCheck[] = {
    {"FILE", &Options::file, "The module's library"},
    Option("--timeout SECONDS", &Options::limit, "A call that lasts longer counts as hung; default: 30")
        .within(1, kLongestLimit),
    {"--image FILE", &Options::image, "A good image; default: random bytes"},
    {"--version TEXT", &Options::version, "Its version; default: the active one, counted up"},
    {"--keep PATH", &Options::keepVisible, "Show this path of the host too (may be repeated)"},
    {"--power-cut", &Options::cutPower, "Also cut the power at every write of an update"},
    Option("--list", &Options::list, "List the checks instead").excluding("FILE"),
    {"--junit FILE", &Options::junit, "Also write a JUnit report"},
};

void settleCheck(Options& options) {
  if (options.file.empty() && !options.list) {
    throw frame::UsageError("which module? Name its library, such as build/libdoor.so");
  }
  if (!options.image.empty() && options.version.empty()) {
    throw frame::UsageError("--image needs the image's --version");
  }
}

constexpr frame::Command<Options> kCommands[] = {
    {{"new", "Write a new module's project, with build and tests", "fw-module new libdoor"},
     {kNew},
     fwmodule::runNew},
    {{"check", "Check a module against its contract, in a private device",
      "fw-module check build/libdoor.so"},
     {kCheck},
     fwmodule::runCheck,
     settleCheck},
};

// What the system refused.
frame::Report explain(const std::exception& error) {
  const bool refused = dynamic_cast<const std::system_error*>(&error) != nullptr;
  return frame::Report(refused ? Outcome::NotPossible : Outcome::Unexpected, error.what());
}

constexpr frame::Program<Options> kProgram = {
    {"fw-module",
     "Writes update modules, and checks that they keep their contract.",
     "Each command explains itself: fw-module check --help\nExample: fw-module new libdoor",
     fwmodule::kOutcomes,
     Outcome::Usage,
     Outcome::Unexpected,
     24,
     nullptr,
     {},
     nullptr,
     "Print one JSON document on standard output",
     explain},
    {},
    kCommands,
};

}  // namespace

int main(int argc, char** argv) {
  return frame::perform(kProgram, argc, argv);
}
