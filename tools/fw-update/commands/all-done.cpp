// SPDX-License-Identifier: Apache-2.0
// fw-update all-done
#include <exception>

#include "commands.h"
#include "fw-update-symbol-manager.h"
#include "library/library.h"
#include "library/log-meanings.h"
#include "report.h"

namespace tool {
namespace {

Finding tellAll(const Library& library) {
  try {
    FWUpdateSymbolManager::getInstance()->allDoUpdateDone();
    return {Outcome::Ok, std::to_string(library.items.size()) + " modules were told.", ""};
  } catch (const std::exception& error) {
    return {Outcome::ModuleFailed,
            brokeOff("A module", error).message + " The modules after it were not told.",
            "See the log (--log)."};
  }
}

}  // namespace

frame::Report runAllDone(const Options&) {
  const Library library = openLibrary();
  if (library.problem) {
    return reportOf(*library.problem);
  }
  frame::Report report = reportOf(tellAll(library));
  report.details["modules"] = static_cast<Json::UInt64>(library.items.size());
  return report;
}

}  // namespace tool
