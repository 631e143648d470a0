// fw-update all-done
#include <exception>

#include "commands.h"
#include "fw-update-symbol-manager.h"
#include "library/library.h"

namespace tool {

Report runAllDone(const Options&) {
  Report report;
  const Library library = openLibrary();
  if (library.problem) {
    report.finding = *library.problem;
    return report;
  }
  report.details["modules"] = static_cast<Json::UInt64>(library.items.size());
  try {
    FWUpdateSymbolManager::getInstance()->allDoUpdateDone();
    report.finding = {Outcome::Ok, std::to_string(library.items.size()) + " modules were told.", ""};
  } catch (const std::exception& error) {
    report.finding = {Outcome::ModuleFailed,
                      std::string("A module broke off with an error of its own: ") + error.what() +
                          ". The modules after it were not told.",
                      "See the log (--log)."};
  }
  return report;
}

}  // namespace tool
