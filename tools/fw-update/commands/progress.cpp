// fw-update progress NAME
#include "commands.h"
#include "library/library.h"

namespace tool {
namespace {

Finding explain(int result, const std::string& module, unsigned int progress) {
  if (result == 0) {
    return {Outcome::Ok, module + ": " + std::to_string(progress) + " %", ""};
  }
  if (result == -1) {
    return {Outcome::NothingToDo, module + " reports no progress.", ""};
  }
  return {Outcome::ModuleFailed,
          module + " could not tell its progress: it answered " + std::to_string(result) + ".",
          "Check that the component is connected."};
}

}  // namespace

Report runProgress(const Options& options) {
  Report report;
  report.details["module"] = options.module;
  const Library library = openLibrary();
  if (const auto problem = moduleProblem(library, options.module)) {
    report.finding = *problem;
    return report;
  }

  unsigned int progress = 0;
  const int result = library.facade->fw_getUpdateProgress(options.module.c_str(), &progress);

  report.details["result"] = result;
  if (result == 0) {
    report.details["progress"] = progress;
  }
  report.finding = explain(result, options.module, progress);
  return report;
}

}  // namespace tool
