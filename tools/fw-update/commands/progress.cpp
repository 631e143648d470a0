// SPDX-License-Identifier: Apache-2.0
// fw-update progress NAME
#include "commands.h"
#include "library/library.h"
#include "report.h"

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
          module + " could not tell its progress: it answered " + answerText(result) + ".",
          "Check that the component is connected."};
}

frame::Report ask(const std::string& module) {
  const Library library = openLibrary();
  if (const auto problem = moduleProblem(library, module)) {
    return reportOf(*problem);
  }
  unsigned int progress = 0;
  const int result = library.facade->fw_getUpdateProgress(module.c_str(), &progress);
  frame::Report report = reportOf(explain(result, module, progress));
  report.details["result"] = result;
  if (result == 0) {
    report.details["progress"] = progress;
  }
  return report;
}

}  // namespace

frame::Report runProgress(const Options& options) {
  frame::Report report = ask(options.module);
  report.details["module"] = options.module;
  return report;
}

}  // namespace tool
